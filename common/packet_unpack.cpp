#include <msgpack/unpack.h>

#include <algorithm>
#include <climits>

#include "common/packet.h"

namespace tandem {

namespace {

struct my_unpacker final : packet_t::base_unpacker {
    my_unpacker() { msgpack_unpacked_init(&last); }
    ~my_unpacker() override { msgpack_unpacked_destroy(&last); }

    msgpack_unpacked last;
    size_t offset = 0;
};

my_unpacker* own_unpacker(const std::shared_ptr<packet_t::base_unpacker>& unpacker) {
    return dynamic_cast<my_unpacker*>(unpacker.get());
}

uint64_t read_big_endian(const uint8_t* at, uint32_t bytes) {
    uint64_t value = 0;
    for (uint32_t i = 0; i < bytes; ++i) {
        value = value << 8 | at[i];
    }
    return value;
}

// One value's own bytes, without its elements: a tag, a length field, and then bytes or a number of elements.
struct value_shape {
    uint32_t length_field = 0;    // bytes
    uint32_t fixed = 0;           // bytes behind the length field, whatever the length
    uint32_t bytes_per_unit = 0;  // of the length
    uint32_t values_per_unit = 0;
    uint32_t units = 0;  // when there is no length field
};

value_shape shape_of(uint8_t tag) {
    if (tag < 0x80 || tag >= 0xE0) return {};
    if (tag < 0x90) return {.values_per_unit = 2, .units = tag & 0x0Fu};
    if (tag < 0xA0) return {.values_per_unit = 1, .units = tag & 0x0Fu};
    if (tag < 0xC0) return {.fixed = tag & 0x1Fu};
    if (tag < 0xC4) return {};
    if (tag < 0xC7) return {.length_field = 1u << (tag - 0xC4), .bytes_per_unit = 1};
    if (tag < 0xCA) return {.length_field = 1u << (tag - 0xC7), .fixed = 1, .bytes_per_unit = 1};
    if (tag < 0xCC) return {.fixed = 4u << (tag - 0xCA)};
    if (tag < 0xD4) return {.fixed = 1u << ((tag - 0xCC) & 3)};
    if (tag < 0xD9) return {.fixed = 1 + (1u << (tag - 0xD4))};
    if (tag < 0xDC) return {.length_field = 1u << (tag - 0xD9), .bytes_per_unit = 1};
    return {.length_field = 2u << (tag & 1), .values_per_unit = tag < 0xDE ? 1u : 2u};
}

// Whether the value at `at` can be whole. msgpack-c allocates an array or map as soon as it reads the announced number
// of elements, so a few bytes would cost gigabytes; each element takes a byte at least, so that such a number is known
// to be a lie at once.
bool may_be_whole(const uint8_t* at, uint64_t left) {
    uint64_t owed = 1;
    while (owed > 0) {
        if (owed > left) return false;
        const value_shape shape = shape_of(*at);
        uint64_t size = 1 + uint64_t{shape.length_field};
        if (size > left) return false;
        const uint64_t units = shape.length_field > 0 ? read_big_endian(at + 1, shape.length_field) : shape.units;
        size += shape.fixed + units * shape.bytes_per_unit;
        if (size > left) return false;
        at += size;
        left -= size;
        owed = owed - 1 + units * shape.values_per_unit;
    }
    return true;
}

}  // namespace

packet_t::base_unpacker::~base_unpacker() = default;

std::shared_ptr<packet_t::base_unpacker> packet_t::new_unpacker() {
    return std::make_shared<my_unpacker>();
}

void packet_t::reset_unpacker(std::shared_ptr<base_unpacker> unpacker) {
    my_unpacker* own = own_unpacker(unpacker);
    if (own == nullptr) return;
    msgpack_unpacked_destroy(&own->last);
    msgpack_unpacked_init(&own->last);
    own->offset = 0;
}

int packet_t::unpack_next(std::shared_ptr<base_unpacker> unpacker, message_variant_t& out) {
    my_unpacker* own = own_unpacker(unpacker);
    if (own == nullptr || buffer_ == nullptr || own->offset >= size_) return -1;
    if (!may_be_whole(buffer_ + own->offset, size_ - own->offset)) return -1;
    size_t offset = own->offset;
    const auto* bytes = reinterpret_cast<const char*>(buffer_);
    if (msgpack_unpack_next(&own->last, bytes, size_, &offset) != MSGPACK_UNPACK_SUCCESS) return -1;
    own->offset = offset;
    out.assign(own->last.data);
    return static_cast<int>(std::min<size_t>(offset, INT_MAX));
}

message_variant_t packet_t::unpack_next(std::shared_ptr<base_unpacker> unpacker) {
    message_variant_t value;
    unpack_next(std::move(unpacker), value);
    return value;
}

}  // namespace tandem
