// Looks up the address of a host without keeping a network thread waiting.
#pragma once

#include <memory>

namespace media::fetch {

/// The look-up runs on a thread of its own. When nobody is interested any more that thread is left behind, and ends
/// when the system gives up. One look-up runs at a time.
class name_lookup {
public:
    enum class state_t { none, running, found, failed };

    /// Begins, unless one runs. A dotted address is found at once.
    void begin(const char* host) noexcept;
    state_t state() const noexcept;
    /// The dotted address, once it is found.
    const char* address() const noexcept;

private:
    struct job_t;
    static void run(void* arg) noexcept;

    std::shared_ptr<job_t> job_;
};

}  // namespace media::fetch
