// The heads of a real RTSP DESCRIBE exchange, as ffmpeg asks and the camera answers: found and read on arrival, built
// and printed to be sent. The floor is what any of it has to do with the same bytes: copy them and look for their end.
#include "core/memory.h"
#include "inet/net_http_header.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view request =
    "DESCRIBE rtsp://127.0.0.1:8554/live RTSP/1.0\r\n"
    "Accept: application/sdp\r\n"
    "CSeq: 2\r\n"
    "User-Agent: a player/59.27.100\r\n"
    "\r\n";
constexpr std::string_view reply =
    "RTSP/1.0 200 OK\r\n"
    "CSeq: 2\r\n"
    "Content-Base: rtsp://127.0.0.1:8554/live/\r\n"
    "Content-Type: application/sdp\r\n"
    "Content-Length: 345\r\n"
    "\r\n";
constexpr size_t exchange_size = request.size() + reply.size();

void read(std::string_view bytes) {
    const int size = http_find_header(bytes.data(), static_cast<unsigned>(bytes.size()));
    auto* header = http_header_parse(bytes.data(), static_cast<unsigned>(size), CORE_HERE);
    benchmark::DoNotOptimize(header);
    http_header_free(header);
}

void describe_floor(benchmark::State& state) {
    std::array<char, exchange_size> copy{};
    for (auto _ : state) {
        for (std::string_view bytes : {request, reply}) {
            benchmark::DoNotOptimize(bytes);
            std::memcpy(copy.data(), bytes.data(), bytes.size());
            benchmark::DoNotOptimize(std::string_view(copy.data(), bytes.size()).find("\r\n\r\n"));
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(exchange_size));
}
BENCHMARK(describe_floor);

void describe_parse(benchmark::State& state) {
    for (auto _ : state) {
        read(request);
        read(reply);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(exchange_size));
}
BENCHMARK(describe_parse);

void describe_print(benchmark::State& state) {
    auto* reader = http_header_parse(request.data(), request.size(), CORE_HERE);
    auto* answer = http_header_parse(reply.data(), reply.size(), CORE_HERE);
    http_put_response(answer, "RTSP/1.0", 200, "OK");
    std::array<char, 8192> out{};
    for (auto _ : state) {
        for (const auto* header : {reader, answer})
            benchmark::DoNotOptimize(http_header_sprintf(header, out.data(), out.size()));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(exchange_size));
    http_header_free(reader);
    http_header_free(answer);
}
BENCHMARK(describe_print);

/// What a server does to answer: a new record, its fields, its text.
void describe_build_and_print(benchmark::State& state) {
    std::array<char, 8192> out{};
    for (auto _ : state) {
        auto* answer = http_header_respond("RTSP/1.0", 200, "OK");
        http_header_put(answer, "CSeq", "2");
        http_header_put_format(answer, "Content-Base", "%s/", "rtsp://127.0.0.1:8554/live");
        http_header_put(answer, "Content-Type", "application/sdp");
        http_header_put_uint32(answer, "Content-Length", 345);
        benchmark::DoNotOptimize(http_header_sprintf(answer, out.data(), out.size()));
        http_header_free(answer);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(reply.size()));
}
BENCHMARK(describe_build_and_print);

}  // namespace
