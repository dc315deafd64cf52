// Looks up the address of a host without keeping the network thread waiting.
#pragma once

#include <memory>
#include <string>

namespace viewer {

/// The look-up itself runs on a thread of its own, which is left behind when nobody is interested any more: it ends
/// when the system gives up.
class host_lookup {
public:
    enum class state { running, found, failed };

    /// An address is found at once.
    explicit host_lookup(const std::string& host);
    state now() const;
    /// The dotted address, once it is found.
    const std::string& address() const;

private:
    struct job;
    static void run(void* arg);

    std::shared_ptr<job> job_;
};

}  // namespace viewer
