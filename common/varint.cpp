#include "common/varint.h"

void t_format_16(uint8_t* out, uint16_t value) {
    out[0] = static_cast<uint8_t>(value >> 8);
    out[1] = static_cast<uint8_t>(value);
}

void t_format_24(uint8_t* out, uint32_t value) {
    out[0] = static_cast<uint8_t>(value >> 16);
    t_format_16(out + 1, static_cast<uint16_t>(value));
}

void t_format_32(uint8_t* out, uint32_t value) {
    t_format_16(out, static_cast<uint16_t>(value >> 16));
    t_format_16(out + 2, static_cast<uint16_t>(value));
}

void t_format_64(uint8_t* out, uint64_t value) {
    t_format_32(out, static_cast<uint32_t>(value >> 32));
    t_format_32(out + 4, static_cast<uint32_t>(value));
}

int t_encode_varint_length(uint64_t value) {
    if (value < 64) return 1;
    if (value < 16384) return 2;
    return value <= 0x3FFFFFFF ? 4 : 8;
}

int t_decode_varint_length(uint8_t first_byte) {
    return 1 << (first_byte >> 6);
}

int t_varint_encode(uint8_t* out, uint32_t out_len, uint64_t value) {
    const int length = t_encode_varint_length(value);
    if (out_len < static_cast<uint32_t>(length)) return 0;
    switch (length) {
        case 1:
            out[0] = static_cast<uint8_t>(value);
            break;
        case 2:
            t_varint_encode_16(out, static_cast<uint16_t>(value));
            break;
        case 4:
            t_format_32(out, 0x80000000u | static_cast<uint32_t>(value));
            break;
        default:
            t_format_64(out, 0xC000000000000000u | value);
            break;
    }
    return length;
}

void t_varint_encode_16(uint8_t* out, uint16_t value) {
    t_format_16(out, static_cast<uint16_t>(0x4000 | (value & 0x3FFF)));
}

int t_varint_decode(const uint8_t* in, uint32_t in_len, uint64_t* value) {
    const int length = t_decode_varint_length(in[0]);
    *value = 0;
    if (static_cast<uint32_t>(length) > in_len) return 0;
    uint64_t decoded = in[0] & 0x3F;
    for (int i = 1; i < length; ++i) {
        decoded = decoded << 8 | in[i];
    }
    *value = decoded;
    return length;
}

int t_varint_skip(const uint8_t* in) {
    return t_decode_varint_length(in[0]);
}
