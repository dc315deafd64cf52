#include "core/cmd.h"

#include "core/owned.h"

#include <mutex>

namespace {

struct call_t {
    void (*function)(void* owner, void* arg);
    void* arg;
};
using calls_t = core::vector<call_t>;

}  // namespace

struct cmd_ctx {
    cmd_ctx(void* o, const char* file, int line) noexcept
        : owner(o), posted(core::allocator<call_t>(file, line)), spare(core::allocator<call_t>(file, line)) {}

    void* owner;
    std::mutex lock;
    calls_t posted;
    calls_t spare;  ///< empty, with the room of an earlier batch: posting allocates only while the queue grows
};

cmd_ctx* core_cmd_open(void* owner, const char* file, int line) noexcept {
    return core::create<cmd_ctx>(file, line, owner, file, line);
}

int core_cmd_exec(cmd_ctx* cmd, void (*function)(void* owner, void* arg), void* arg) noexcept {
    if (!cmd || !function) return 0;
    const std::lock_guard guard(cmd->lock);
    try {
        cmd->posted.push_back({function, arg});
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return 1;
}

uint32_t core_cmd_process(cmd_ctx* cmd) noexcept {
    if (!cmd) return 0;
    calls_t batch(cmd->posted.get_allocator());
    {
        const std::lock_guard guard(cmd->lock);
        batch.swap(cmd->posted);
        cmd->posted.swap(cmd->spare);
    }
    for (const call_t& call : batch)
        call.function(cmd->owner, call.arg);
    const auto count = static_cast<uint32_t>(batch.size());
    batch.clear();
    const std::lock_guard guard(cmd->lock);
    // A call may have processed the queue itself and put its own batch there.
    if (cmd->spare.capacity() < batch.capacity()) cmd->spare.swap(batch);
    return count;
}

void core_cmd_close(cmd_ctx*& cmd) noexcept {
    core::destroy(cmd);
    cmd = nullptr;
}
