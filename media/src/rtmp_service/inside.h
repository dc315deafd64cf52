// The RTMP service, inside: what its threads share.
#pragma once

#include "core/owned.h"
#include "media/rtmp_service.h"
#include "media/station.h"

#include <atomic>
#include <mutex>

namespace media::rtmp {

/// Whether RTMP has a form for frames of that format.
bool carries(uint32_t fcc) noexcept;
/// What of a stream can be sent, by the formats that are known.
enum class use_t : uint8_t { unknown, none, some };
use_t use_of(const stream& what) noexcept;

/// One time base for each stream that is watched, so that all threads give a frame the same timestamp. Any thread.
class time_bases {
public:
    /// The time base of a stream, which the caller then holds.
    /// @param first  of a stream without one: its base
    /// @return false when memory is out
    bool enter(const stream& of, uint64_t first, uint64_t& base) noexcept;
    void leave(const stream& of) noexcept;

private:
    struct base_t {
        uint64_t id;  ///< of the stream
        uint64_t base;
        uint32_t holds;
    };

    std::mutex lock_;
    core::vector<base_t> bases_;
};

class service_t final : public rtmp_service_t {
public:
    explicit service_t(const rtmp_settings_t& settings) noexcept;
    /// Whether all texts could be copied.
    bool complete() const noexcept { return complete_; }

    uint16_t port() const noexcept override { return port_; }
    void set_port(uint16_t port) noexcept override { port_ = port; }
    bool needs_port() const noexcept override { return settings_.needs_port; }
    int open(station& of, failure_t* error) noexcept override;
    claim_t claims(buffer_t first) const noexcept override;
    part* make_part(thread& on, failure_t* error) noexcept override;
    client* take(thread& on, net::Tcp*& from) noexcept override;
    void addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                   void* arg) const noexcept override;
    station::totals_t totals() const noexcept override {
        return {counters_.watching, counters_.bytes, counters_.frames, counters_.dropped};
    }

    const rtmp_settings_t& settings() const noexcept { return settings_; }
    /// What its clients count on all threads, beside what each thread counts.
    counters_t& count() noexcept { return counters_; }
    time_bases& bases() noexcept { return bases_; }

private:
    rtmp_settings_t settings_;
    core::owned_text user_;
    core::owned_text password_;
    bool complete_;
    std::atomic<uint16_t> port_;
    counters_t counters_;
    time_bases bases_;
};

}  // namespace media::rtmp
