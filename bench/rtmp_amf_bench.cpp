// Values of RTMP read and written in both encodings, and a second of video cut into chunks, beside a copy of the same
// bytes.
#include "rtmp/chunks.h"
#include "text_floors.h"

#include "common/variant.h"
#include "inet/rtmp_amf.h"

#include <benchmark/benchmark.h>
#include <string>
#include <vector>

namespace {

using inet::rtmp::AMF0Serializer;
using inet::rtmp::AMF3Serializer;

Variant connect() {
    Variant value;
    value["app"] = "live";
    value["type"] = "nonprivate";
    value["flashVer"] = "LNX 9,0,124,2";
    value["tcUrl"] = "rtmp://camera.example.net:1935/live";
    value["fpad"] = false;
    value["capabilities"] = 15.0;
    value["audioCodecs"] = 3191.0;
    value["videoCodecs"] = 252.0;
    value["videoFunction"] = 1.0;
    value["objectEncoding"] = 0.0;
    return value;
}

Variant metadata() {
    Variant value;
    for (const char* name : {"duration", "width", "height", "videodatarate", "framerate", "audiodatarate",
                             "audiosamplerate", "audiosamplesize", "filesize"})
        value[name] = 1920.0;
    value["stereo"] = true;
    value["videocodecid"] = "avc1";
    value["audiocodecid"] = "mp4a";
    value["encoder"] = "a camera with a long name";
    value.IsArray(true);
    return value;
}

/// About 1 MB: objects of a list, as an analysis sends them.
Variant large() {
    Variant value;
    for (uint32_t i = 0; i < 9000; ++i) {
        Variant& object = value[i];
        object["id"] = i;
        object["type"] = "vehicle";
        object["label"] = "a label of more than sixteen characters";
        object["confidence"] = 0.87312;
        object["parked"] = false;
    }
    value.IsArray(true);
    return value;
}

Variant value_of(int64_t kind) { return kind == 0 ? connect() : kind == 1 ? metadata() : large(); }

template <class Serializer>
std::string bytes_of(int64_t kind) {
    IOBuffer buffer;
    Serializer().Write(buffer, value_of(kind));
    return {reinterpret_cast<const char*>(buffer.Data()), buffer.Size()};
}

template <class Serializer>
void read(benchmark::State& state) {
    IOBuffer buffer;
    bench::over_text(state, bytes_of<Serializer>(state.range(0)), [&](const std::string& bytes) {
        buffer.IgnoreAll();
        buffer.ReadFromString(bytes);
        Serializer serializer;
        Variant value;
        if (!serializer.Read(buffer, value)) state.SkipWithError("refused");
    });
}

template <class Serializer>
void write(benchmark::State& state) {
    const Variant value = value_of(state.range(0));
    IOBuffer buffer;
    Serializer serializer;
    bench::over_text(state, bytes_of<Serializer>(state.range(0)), [&](const std::string&) {
        buffer.IgnoreAll();
        if (!serializer.Write(buffer, value)) state.SkipWithError("refused");
        benchmark::DoNotOptimize(buffer.Data());
    });
}

void read_amf0(benchmark::State& state) { read<AMF0Serializer>(state); }
void read_amf3(benchmark::State& state) { read<AMF3Serializer>(state); }
void write_amf0(benchmark::State& state) { write<AMF0Serializer>(state); }
void write_amf3(benchmark::State& state) { write<AMF3Serializer>(state); }
void floor_memcpy(benchmark::State& state) { bench::copy_text(state, bytes_of<AMF0Serializer>(state.range(0))); }

BENCHMARK(read_amf0)->DenseRange(0, 2);
BENCHMARK(read_amf3)->DenseRange(0, 2);
BENCHMARK(write_amf0)->DenseRange(0, 2);
BENCHMARK(write_amf3)->DenseRange(0, 2);
BENCHMARK(floor_memcpy)->DenseRange(0, 2);

// --- Chunks: a second of 4 Mbit/s, a key picture and 24 others, each behind its five bytes ---

std::vector<std::vector<uint8_t>> second_of_video() {
    std::vector<std::vector<uint8_t>> pictures;
    for (size_t i = 0; i < 25; ++i)
        pictures.emplace_back(i == 0 ? 80000 : 17500, static_cast<uint8_t>(i));
    return pictures;
}

void chunk(benchmark::State& state) {
    const auto pictures = second_of_video();
    const uint8_t head[9] = {0x27, 1};
    buf_t out;
    int64_t bytes = 0;
    for (auto _ : state) {
        out.length = 0;
        bytes = 0;
        for (uint32_t i = 0; i < pictures.size(); ++i) {
            const inet::rtmp::message_t message{6, inet::rtmp::message_video, 1, 40 * i, 0};
            inet::rtmp::write_message(out, message, {head, pictures[i]}, static_cast<uint32_t>(state.range(0)));
            bytes += static_cast<int64_t>(pictures[i].size());
        }
        benchmark::DoNotOptimize(out.data);
        benchmark::ClobberMemory();
    }
    core_buf_free(&out);
    state.SetBytesProcessed(state.iterations() * bytes);
}

void chunk_floor(benchmark::State& state) {
    const auto pictures = second_of_video();
    std::vector<uint8_t> out(600000);
    int64_t bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        for (const auto& picture : pictures) {
            std::memcpy(out.data() + bytes, picture.data(), picture.size());
            bytes += static_cast<int64_t>(picture.size());
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}

class counter_t : public inet::rtmp::chunk_owner {
public:
    inet::rtmp::take_t on_message_header(const inet::rtmp::message_t&) noexcept override {
        return inet::rtmp::take_t::keep;
    }
    bool on_message(const inet::rtmp::message_t&, std::span<const uint8_t> body) noexcept override {
        bytes += static_cast<int64_t>(body.size());
        return true;
    }
    int64_t bytes = 0;
};

/// The same back, in pieces as they come from a connection.
void unchunk(benchmark::State& state) {
    buf_t wire;
    for (const auto& picture : second_of_video())
        inet::rtmp::write_message(wire, {6, inet::rtmp::message_video, 1, 0, 0}, {picture}, 4096);
    inet::rtmp::chunk_reader reader({});
    reader.set_chunk_size(4096);
    counter_t counter;
    for (auto _ : state) {
        for (uint32_t at = 0; at < wire.length; at += 16384)
            reader.read({wire.data + at, std::min(16384U, wire.length - at)}, counter);
    }
    state.SetBytesProcessed(counter.bytes);
    core_buf_free(&wire);
}

BENCHMARK(chunk)->Arg(4194304)->Arg(4096)->Arg(128);
BENCHMARK(chunk_floor);
BENCHMARK(unchunk);

}  // namespace
