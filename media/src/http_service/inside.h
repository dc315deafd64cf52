// The HTTP service, inside: its routes, and what its threads share.
#pragma once

#include "http_service/gate.h"

#include "core/owned.h"
#include "media/http_service.h"
#include "media/station.h"

#include <atomic>
#include <string_view>

namespace media::web {

struct route_t {
    core::string path;
    core::string methods;
    http_handler_t handler = nullptr;  ///< null for a document
    void* arg = nullptr;
    document_t document{};
    bool open = false;
};

class service_t final : public http_service_t {
public:
    explicit service_t(const http_settings_t& settings) noexcept;
    bool complete() const noexcept { return gate_ != nullptr; }

    int serve(const char* path, http_handler_t handler, void* arg, const char* methods, bool open) noexcept override;
    int serve(const char* path, const document_t& what) noexcept override;

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
    /// What its clients count on all threads, beside what each thread counts.
    counters_t& count() noexcept { return counters_; }
    const http_settings_t& settings() const noexcept { return settings_; }
    const gate& doorman() const noexcept { return *gate_; }
    const route_t* find(std::string_view path) const noexcept;

private:
    int add(route_t route) noexcept;

    http_settings_t settings_;
    core::owned_text user_;
    core::owned_text password_;
    core::owned_object<gate> gate_;
    std::atomic<uint16_t> port_;
    counters_t counters_;
    core::vector<route_t> routes_;
};

}  // namespace media::web
