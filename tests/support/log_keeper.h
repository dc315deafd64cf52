// What is printed to logs while it lives.
#pragma once

#include "core/log.h"

#include <functional>
#include <string>

namespace test {

/// A sink that keeps what it gets as "log:text ", and may do something for each line.
struct log_keeper {
    explicit log_keeper(const char* logs) : sink(core_log_sink_add(logs, write, this)) {}
    log_keeper(const log_keeper&) = delete;
    log_keeper& operator=(const log_keeper&) = delete;
    ~log_keeper() { core_log_sink_rem(sink); }

    static void write(void* arg, const log_line_t* line) {
        auto& self = *static_cast<log_keeper*>(arg);
        self.lines += std::string(line->log) + ':' + line->text + ' ';
        if (self.then) self.then();
    }

    std::string lines;
    std::function<void()> then;
    uint32_t sink;  // last: lines may come as soon as it is set
};

}  // namespace test
