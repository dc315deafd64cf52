// A chunk stream gives the same messages whatever pieces it comes in, within its bound. A message that the serializer
// reads and writes comes back through another reader. The first byte of the input is the size of the pieces,
// the second tells whose bounds hold: a server's or a client's.
#include "fuzz.h"
#include "rtmp/chunks.h"

#include "inet/rtmp_serializer.h"
#include "inet/rtmp_tree.h"

using namespace inet::rtmp;

namespace {

constexpr uint32_t bound = 4096;

class owner_t : public chunk_owner {
public:
    owner_t(bool server, bool sends) : reader(settings(server)), sends_(sends) {}

    take_t on_message_header(const message_t& message) noexcept override {
        heard += std::to_string(message.channel) + ':' + std::to_string(message.time) + ' ';
        return message.type == message_audio ? take_t::skip : take_t::keep;
    }

    bool on_message(const message_t& message, std::span<const uint8_t> body) noexcept override {
        require(body.size() == message.length);
        heard += test::hex(fuzz::text_of(body)) + ' ';
        IOBuffer bytes;
        bytes.ReadFromBuffer(body.data(), static_cast<uint32_t>(body.size()));
        const _Header header{
            message.channel, 0,   message.time, message.length & max_message_length, message.type & 255,
            message.stream,  true};
        Variant tree;
        if (!serializer_.Deserialize(header, bytes, tree)) return true;
        heard += test::tree(tree) + '\n';
        if (message.type == message_chunk_size) return reader.set_chunk_size(static_cast<uint32_t>(tree["chunkSize"]));
        if (message.type == message_abort) reader.abort(static_cast<uint32_t>(tree["abortMessage"]));
        if (sends_) send(tree);
        return true;
    }

    bool read(std::span<const uint8_t> bytes, size_t piece) {
        for (bool good = true; good && !bytes.empty(); bytes = bytes.subspan(std::min(piece, bytes.size()))) {
            good = reader.read(bytes.first(std::min(piece, bytes.size())), *this);
            require(reader.held() <= bound && good == (reader.fault() == chunk_fault_t::none));
        }
        return reader.fault() == chunk_fault_t::none;
    }

    chunk_reader reader;
    std::string heard;

private:
    static chunk_reader::settings_t settings(bool server) {
        if (server) return {.ids = 319, .three_byte_ids = false, .max_channels = 319, .max_bytes = bound};
        return {.max_channels = 8, .max_bytes = bound};
    }

    void send(Variant& tree) {
        _Channel channel;
        IOBuffer out;
        if (!serializer_.Serialize(channel, tree, out, first_chunk_size)) return;
        owner_t other(false, false);
        // What is written may be longer than what came. Values may change, see amf_again.h; numbers may not.
        if (!other.read(out.Readable(), SIZE_MAX) || fuzz::starved || out.Size() == 0) return;
        const bool values = static_cast<uint32_t>(tree["header"]["messageType"]) > message_peer_bandwidth;
        require(values || other.heard.find(test::tree(tree)) != std::string::npos);
    }

    RTMPSerializer serializer_;
    bool sends_;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.size() < 2) return;
    const bool server = input[1] % 2 == 0;
    owner_t in_pieces(server, true);
    const bool good = in_pieces.read(input.subspan(2), input[0] + size_t{1});
    owner_t at_once(server, false);
    const bool whole = at_once.read(input.subspan(2), SIZE_MAX);
    if (fuzz::starved) return;
    // A body in one piece is not held, the same one in pieces is: the bound may end the one read sooner than the other.
    const auto full = [](const owner_t& owner) { return owner.reader.fault() == chunk_fault_t::too_much; };
    if (full(in_pieces) || full(at_once)) {
        const size_t both = std::min(in_pieces.heard.size(), at_once.heard.size());
        require(in_pieces.heard.compare(0, both, at_once.heard, 0, both) == 0);
        return;
    }
    require(good == whole && in_pieces.heard == at_once.heard);
}
