#include "inet/net_rate.h"

#include "core/time.h"

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t bits_and_second = 8 * second;

}  // namespace

namespace tool {

Bps::Bps() noexcept { reset(); }

void Bps::reset() noexcept {
    start = time_now();
    bytes = 0;
}

void Bps::add(unsigned n) noexcept { bytes += n; }

unsigned Bps::get() const noexcept {
    const uint64_t passed = time_now() - start;
    return passed == 0 ? 0 : static_cast<unsigned>(bytes * bits_and_second / passed);
}

unsigned Bps::available(unsigned bit_rate) const noexcept {
    if (bit_rate * uint64_t{8} <= bytes) return 0;
    return static_cast<unsigned>(bit_rate * (time_now() - start) / bits_and_second - bytes);
}

Fps::Fps() noexcept : start(time_now()) {}

void Fps::tick() noexcept { ++frames; }

double Fps::get() const noexcept {
    const uint64_t passed = time_now() - start;
    return passed == 0 ? 0.0 : frames * static_cast<double>(second) / static_cast<double>(passed);
}

}  // namespace tool

namespace {

void update(net::bps_t& meter) noexcept {
    const uint64_t now = time_now();
    if (meter.period_start == 0) meter.period_start = now;
    const uint64_t elapsed = now - meter.period_start;
    if (elapsed <= second) return;
    const uint64_t rate = meter.pending * second / elapsed;
    meter.rate = static_cast<uint32_t>(meter.rate == 0 ? rate : (meter.rate + rate) / 2);
    const uint64_t whole = elapsed / second * second;
    meter.period_start += whole;
    meter.pending -= rate * whole / second;
}

}  // namespace

void bps_add(net::bps_t& meter, unsigned n) noexcept {
    meter.pending += n;
    update(meter);
}

unsigned bps_get(net::bps_t& meter) noexcept {
    update(meter);
    return meter.rate;
}

void bandwidth_set(net::bandwidth_t& budget, unsigned bits_per_second) noexcept {
    budget = {bits_per_second >> 3, 0, 0};
}

unsigned bandwidth_available(net::bandwidth_t& budget) noexcept {
    if (budget.limit == 0) return 0xffffffff;
    const uint64_t now = time_now();
    if (budget.period_start == 0) {
        budget.period_start = now;
        return budget.limit;
    }
    const uint64_t elapsed = now - budget.period_start;
    if (elapsed == 0) return 0;
    if (elapsed >= second && budget.used >= budget.limit) {
        budget.used -= budget.limit;
        budget.period_start += second;
    }
    if (budget.limit <= budget.used) return 0;
    return static_cast<unsigned>(budget.limit * elapsed / second - budget.used);
}

void bandwidth_commit(net::bandwidth_t& budget, unsigned n) noexcept {
    if (budget.limit != 0) budget.used += n;
}
