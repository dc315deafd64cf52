// Whether time grows with the input.
#pragma once

#include <algorithm>
#include <ctime>
#include <string>

namespace test {

/// Processor time of a run of `work` on a text, in seconds: the shorter of two runs.
template <class Work>
double shorter_run(Work work, const std::string& text) {
    double taken[2];
    for (double& one : taken) {
        const std::clock_t start = std::clock();
        work(text);
        one = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    }
    return std::min(taken[0], taken[1]);
}

/// Whether twice the text takes at most 2.5 times the time; `make` gives a text of a size. A busy machine disturbs some
/// attempts, but what grows with the square takes 4 times as long in every one.
template <class Make, class Work>
bool takes_linear_time(Make make, Work work, size_t size) {
    const std::string once = make(size);
    const std::string twice = make(2 * size);
    constexpr double noise = 1e-3;  // below it the clock is all that is measured
    for (int attempt = 0; attempt < 8; ++attempt)
        if (shorter_run(work, twice) <= 2.5 * shorter_run(work, once) + noise) return true;
    return false;
}

/// A text that begins with `start` and goes on with `part` again and again.
inline auto repeating(std::string start, std::string part) {
    return [start, part](size_t size) {
        std::string text = start;
        while (text.size() < size)
            text += part;
        return text;
    };
}

}  // namespace test
