// What was printed to logs while it lives.
#pragma once

#include "core/log.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace test {

class log_lines {
public:
    explicit log_lines(const char* logs) : sink_(core_log_sink_add(logs, write, this)) {}
    ~log_lines() { core_log_sink_rem(sink_); }

    std::vector<std::string> take() {
        const std::lock_guard held(mutex_);
        return std::exchange(lines_, {});
    }

private:
    static void write(void* arg, const log_line_t* line) {
        auto* self = static_cast<log_lines*>(arg);
        const std::lock_guard held(self->mutex_);
        self->lines_.emplace_back(line->text);
    }

    std::mutex mutex_;
    std::vector<std::string> lines_;
    uint32_t sink_;
};

}  // namespace test
