// Where a source is: its URL, and the address of its host, looked up without keeping a network thread waiting.
#pragma once

#include "core/owned.h"
#include "inet/net_thread.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace media::fetch {

enum class scheme_t : uint8_t { rtsp, http, rtmp };

struct address_t {
    char host[256] = "";
    uint16_t port = 0;
    scheme_t scheme = scheme_t::rtsp;
    core::owned_text uri;     ///< as protocols take it: of RTSP with user and password, of the others without
    core::owned_text target;  ///< path and query; not of RTSP
    core::owned_text user;    ///< decoded; null for none
    core::owned_text password;

    /// @param url             what cannot be sent as it stands is coded
    /// @param user, password  instead of those in the URL; null for them
    /// @return false for what cannot be fetched, or when memory is out
    bool set(const char* url, const char* user, const char* password) noexcept;
    /// Where a source at `from` says that it is instead. User and password go along to the same host alone.
    /// @param reference  absolute, or relative to `from`
    bool move(const address_t& from, const char* reference) noexcept;
    /// The last segment of the path, decoded; empty for none, null when memory is out. Of HTTP.
    core::owned_text file_name() const noexcept;

private:
    bool set_login(std::string_view login, const char* name, const char* secret) noexcept;
    bool set_target(std::string_view place) noexcept;
    bool set_uri(const char* url, const char* behind_login, bool named) noexcept;
};

/// The look-up runs on a thread of its own. When nobody is interested any more that thread is left behind, and ends
/// when the system gives up. One look-up runs at a time.
class name_lookup {
public:
    enum class state_t { none, running, found, failed };

    /// Has a command ordered when a look-up is done. Null ends that, before the command is destroyed.
    void tell(net::command_ctx* done) noexcept;
    /// Begins, unless one runs. A dotted address is found at once.
    void begin(const char* host) noexcept;
    state_t state() const noexcept;
    /// The dotted address, once it is found.
    const char* address() const noexcept;

private:
    struct job_t;
    static void run(void* arg) noexcept;

    net::command_ctx* done_ = nullptr;
    std::shared_ptr<job_t> job_;
};

}  // namespace media::fetch
