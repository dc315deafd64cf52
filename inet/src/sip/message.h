// What stands in a message: fields with their compact names, the parts of Via and of addresses, and messages as text.
#pragma once

#include "core/owned.h"
#include "inet/net_http_header.h"

#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace sip {

using header_t = net::http::header_s;

struct header_deleter {
    void operator()(header_t* header) const noexcept { http_header_free(header); }
};
using owned_header = std::unique_ptr<header_t, header_deleter>;

inline constexpr std::string_view agent_name = "Norvane-K Sip Client";
inline constexpr std::string_view supported = "100rel, replaces, from-change";
inline constexpr std::string_view known_methods = "ACK, BYE, CANCEL, INVITE, OPTIONS, INFO, MESSAGE, NOTIFY, SUBSCRIBE";

/// The reason phrase of RFC 3261, 21; "" for a code that it does not have.
const char* reason(unsigned status) noexcept;

/// The name of a method as a static text, "UNKNOWN" for one that the agent does not know.
const char* known_method(std::string_view method) noexcept;

/// Reads a head with its continuation lines joined (RFC 3261, 7.3.1). Throws std::bad_alloc.
owned_header read(std::string_view head);

/// Whether a field is called so, in full or in its compact form.
bool is_named(std::string_view said, std::string_view name) noexcept;

/// Value of the first field of that name or its compact form; "" when it is missing.
std::string_view field(const header_t& header, std::string_view name) noexcept;

struct via_t {
    std::string_view transport;
    std::string_view host;
    uint32_t port = 5060;
    std::string_view branch, received, rport;
    std::string_view parameters;
    std::string_view others;  ///< the Vias behind it in the same field
    bool good = false;
};
/// The top Via. Its texts are the header's.
via_t top_via(const header_t& header) noexcept;
/// The fields Via of an answer, the top one with where its request came from. Throws std::bad_alloc.
void put_vias(core::string& to, const header_t& header, std::string_view received, std::string_view rport);

/// CSeq. @return false when it is none (RFC 3261, 8.1.1.5: a number below 2^31)
bool read_cseq(const header_t& header, uint32_t& number, std::string_view& method) noexcept;

/// Of From, To and Contact: the tag; the address alone; what stands between "sip:" and '@', or the number of "tel:";
/// and "user@host".
std::string_view tag_of(std::string_view address) noexcept;
std::string_view uri_of(std::string_view address) noexcept;
std::string_view user_of(std::string_view address) noexcept;
std::string_view place_of(std::string_view address) noexcept;

bool is_request_line(std::string_view head) noexcept;
/// The status with which a request has to be refused (RFC 3261, 8.2; RFC 4475), 0 for none.
unsigned fault_of(const header_t& header) noexcept;
/// The options of Require that are not in `supported`. Throws std::bad_alloc.
core::string unsupported(const header_t& header);

/// Texts one after the other. Throws std::bad_alloc, as the next two do.
core::string join(std::initializer_list<std::string_view> parts);
core::string number_text(uint32_t number);
/// Appends a field. Characters that would end it are left out.
void put(core::string& to, std::string_view name, std::initializer_list<std::string_view> value);
/// Appends Content-Length, the blank line and the body.
void put_body(core::string& to, std::string_view body);

}  // namespace sip
