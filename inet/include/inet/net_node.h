/// What a module reads of the document that its node was configured with (inet/net_fish.h).
///
/// Bound: a document of more than 1 MiB is refused. One thread at a time, or any number of threads that only read.
#pragma once

#include "core/api.h"
#include "core/json.h"

#include <cstddef>
#include <cstdint>

namespace net {

class INET_API Node final {
public:
    Node() noexcept = default;
    ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    /// Reads a document, in place of the one before. Where a section is an array, its first item is read.
    /// @param error  takes the reason of a refusal, cut to `error_size`; may be null
    /// @return 1; 0 when it is no node document: nothing is then known
    int parse(const char* json, char* error, size_t error_size) noexcept;

    /// Texts of the document. Valid until it goes; "" where it has none, never null.
    const char* key1() const noexcept { return common("key1"); }
    const char* key2() const noexcept { return common("key2"); }
    const char* key3() const noexcept { return common("key3"); }
    const char* section() const noexcept { return section_; }  ///< such as "device"
    const char* type() const noexcept { return type_; }        ///< such as "media"

    /// Value of a parameter: of its member "_value". text() gives "" for what is no text, number() gives `missing` for
    /// what is no number, truth() gives `missing` for what is neither true nor false.
    const char* text(const char* parameter) const noexcept;
    int64_t number(const char* parameter, int64_t missing) const noexcept;
    bool truth(const char* parameter, bool missing) const noexcept;

    /// Name of a track on the profile bus, "key1_key2_key3_TRACK"; of the node itself, "key1_key2_key3", for null.
    /// @return a new text for core_mfree(), or null when memory is out
    char* bus_name(const char* track, const char* file, int line) const noexcept;

private:
    const char* common(const char* key) const noexcept;
    const json_t* value(const char* parameter) const noexcept;

    json_t* root_ = nullptr;
    const json_t* parameters_ = nullptr;
    const char* section_ = "";
    const char* type_ = "";
};

}  // namespace net
