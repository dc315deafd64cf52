// GetCapabilities as a device answers it: the request read, the blocks made, the envelope filled. Beside it a copy of
// the bytes that come and go.
#include "core/owned.h"
#include "inet/net_soap.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace {

/// With a security header, as clients send it.
std::string request() {
    std::ifstream file(INET_TEST_DATA "/xml/get_stream_uri.xml");
    std::string text{std::istreambuf_iterator<char>(file), {}};
    for (size_t at = 0; (at = text.find("GetStreamUri", at)) != text.npos;)
        text.replace(at, std::strlen("GetStreamUri"), "GetCapabilities");
    return text;
}

core::owned_text answer(const char* text) {
    constexpr char device[] = "http://192.168.1.10:8080/onvif/device_service";
    constexpr char media[] = "http://192.168.1.10:8080/onvif/media_service";
    soap::soap_t* const read = soap_parse(text);
    core::owned_text made;
    if (read && read->method && std::strcmp(read->method, "GetCapabilities") == 0) {
        const core::owned_text blocks[] = {core::owned_text(soap_GetDeviceCapabilities(device)),
                                           core::owned_text(soap_GetMediaCapabilities(media)),
                                           core::owned_text(soap_GetEventsCapabilities(device))};
        const param_t params[] = {{"device", static_cast<const char*>(blocks[0].get())},
                                  {"media", static_cast<const char*>(blocks[1].get())},
                                  {"events", static_cast<const char*>(blocks[2].get())},
                                  {}};
        made.reset(net_soap_response(read, "tds", " xmlns:tds=\"http://www.onvif.org/ver10/device/wsdl\"",
                                     "<tds:Capabilities>${device}${media}${events}</tds:Capabilities>", params,
                                     CORE_HERE));
    }
    soap_free(read);
    return made;
}

void get_capabilities(benchmark::State& state) {
    const std::string text = request();
    for (auto _ : state) {
        const core::owned_text made = answer(text.c_str());
        if (!made) state.SkipWithError("no answer");
        benchmark::DoNotOptimize(made.get());
    }
    state.SetItemsProcessed(state.iterations());
}

void floor_memcpy(benchmark::State& state) {
    const std::string text = request() + answer(request().c_str()).get();
    std::string copy(text.size(), '\0');
    for (auto _ : state) {
        std::memcpy(copy.data(), text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
    state.counters["bytes"] = static_cast<double>(text.size());
}

BENCHMARK(get_capabilities);
BENCHMARK(floor_memcpy);

}  // namespace
