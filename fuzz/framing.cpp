// Frames cut into arbitrary pieces, and the values inside them.
#include <cmath>
#include <memory>

#include "common/packet.h"
#include "fuzz/input.h"

namespace {

using fuzz::require;
using tandem::message_variant_t;
using tandem::packet_t;
using bytes_t = std::vector<uint8_t>;

constexpr uint32_t longest_frame = 1 << 20;

// All bodies of a stream whose bytes come in pieces of 1 .. `most` bytes, and whether the framing broke.
struct stream_t {
    std::vector<bytes_t> bodies;
    bool broken = false;
};

stream_t reassemble(std::span<const uint8_t> bytes, const std::vector<uint8_t>& pieces) {
    stream_t out;
    auto packet = std::make_unique<packet_t>(0);
    packet->limit_frame(longest_frame);
    for (size_t turn = 0; !bytes.empty(); ++turn) {
        const size_t wanted = pieces.empty() ? bytes.size() : 1 + pieces[turn % pieces.size()];
        // Memory of its own, so that reading behind the piece shows.
        bytes_t piece(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min(wanted, bytes.size())));
        bytes = bytes.subspan(piece.size());
        for (size_t at = 0; at < piece.size();) {
            uint32_t consumed = 0;
            const auto left = static_cast<uint32_t>(piece.size() - at);
            const bool complete = packet->check_and_push(&piece[at], left, consumed) == 1;
            require(consumed <= left, "a packet takes no more than there is");
            at += consumed;
            if (complete) {
                require(packet->data() != nullptr && packet->size() > 0, "a complete packet has a body");
                out.bodies.emplace_back(packet->data(), packet->data() + packet->size());
                packet = std::make_unique<packet_t>(0);
                packet->limit_frame(longest_frame);
            } else if (at < piece.size()) {
                out.broken = true;
                return out;
            }
        }
    }
    return out;
}

void use_getters(const message_variant_t& value) {
    unsigned int length = 0;
    value.get_boolean();
    value.get_int64();
    value.get_uint64();
    value.get_float();
    value.get_double();
    const char* text = value.get_cstr(length);
    require(text == nullptr || value.get_string().size() == length, "a text has one length");
    value.get_binary(length);
    std::vector<message_variant_t> elements;
    message_variant_t::map_t pairs;
    require(value.get_array(elements) == -1 || value.type() == MSGPACK_OBJECT_ARRAY, "only arrays have elements");
    require(value.get_map(pairs) == -1 || value.type() == MSGPACK_OBJECT_MAP, "only maps have pairs");
    const message_variant_t copy = value;
    require(!(copy < value) && !(value < copy), "a copy stands where its original does");
}

bytes_t packed(const message_variant_t& value) {
    packet_t packet(16);
    if (packet.pack_variant(value) < 0) return {};
    return {packet.data(), packet.data() + packet.size()};
}

// What was read and is written again stays the same from then on.
void check_round_trip(const message_variant_t& value) {
    const bytes_t once = packed(value);
    if (once.empty()) return;
    packet_t again(const_cast<uint8_t*>(once.data()), static_cast<uint32_t>(once.size()), false);
    const auto unpacker = again.new_unpacker();
    message_variant_t read;
    require(again.unpack_next(unpacker, read) == static_cast<int>(once.size()), "what was packed can be unpacked");
    require(packed(read) == once, "packing has one form");
}

// Integers and floats compare as doubles, so what no double can tell apart has no place of its own among them, and
// not-a-number has none at all. Maps hold such keys as they come.
bool has_place(const message_variant_t& value) {
    return !std::isnan(value.get_double()) && std::abs(value.get_double()) < 0x1p53;
}

// The order is what multimaps stand on.
void check_order(const std::vector<message_variant_t>& values) {
    for (const auto& a : values) {
        const message_variant_t& same = a;
        require(!(a < same), "nothing is less than itself");
        for (const auto& b : values) {
            require(!(a < b && b < a), "the order has one direction");
            for (const auto& c : values) {
                require(!(a < b && b < c) || a < c, "the order is transitive");
                const bool equivalent = !(a < b) && !(b < a) && !(b < c) && !(c < b);
                require(!equivalent || (!(a < c) && !(c < a)), "equivalence is transitive");
            }
        }
    }
}

void unpack(bytes_t& body) {
    packet_t packet(body.data(), static_cast<uint32_t>(body.size()), false);
    auto unpacker = packet.new_unpacker();
    std::vector<message_variant_t> owned;
    for (int position = 0, before = 0;; before = position) {
        message_variant_t value;
        position = packet.unpack_next(unpacker, value);
        if (position < 0) break;
        require(position > before && static_cast<size_t>(position) <= body.size(), "reading goes on, to the end");
        use_getters(value);
        check_round_trip(value);
        // Views die with the next read; owned values of the scalar kinds stay.
        if (owned.size() >= 8 || !has_place(value)) continue;
        if (value.type() == MSGPACK_OBJECT_STR) {
            owned.emplace_back(value.get_string());
        } else if (value.type() < MSGPACK_OBJECT_STR || value.type() == MSGPACK_OBJECT_FLOAT32) {
            owned.push_back(value);
        }
    }
    check_order(owned);
    packet.reset_unpacker(unpacker);
    message_variant_t first;
    packet.unpack_next(unpacker, first);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::be_quiet();
    fuzz::input in(data, size);
    const auto pieces = in.take(in.below(8));
    const auto bytes = in.rest();
    stream_t cut = reassemble(bytes, {pieces.begin(), pieces.end()});
    const stream_t whole = reassemble(bytes, {});
    require(cut.broken == whole.broken && cut.bodies == whole.bodies, "pieces make no difference");
    for (bytes_t& body : cut.bodies) {
        unpack(body);
    }
    return 0;
}
