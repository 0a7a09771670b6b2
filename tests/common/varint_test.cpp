#include "common/varint.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using bytes_t = std::vector<uint8_t>;

bytes_t encoded(uint64_t value) {
    bytes_t out(8);
    out.resize(static_cast<size_t>(t_varint_encode(out.data(), 8, value)));
    return out;
}

TEST(varint, takes_the_shortest_class_and_reads_back) {
    const std::pair<uint64_t, bytes_t> cases[] = {
        {0, {0x00}},
        {37, {0x25}},
        {63, {0x3F}},
        {64, {0x40, 0x40}},
        {300, {0x41, 0x2C}},
        {16383, {0x7F, 0xFF}},
        {16384, {0x80, 0x00, 0x40, 0x00}},
        {0x3FFFFFFF, {0xBF, 0xFF, 0xFF, 0xFF}},
        {0x40000000, {0xC0, 0, 0, 0, 0x40, 0, 0, 0}},
        {(uint64_t{1} << 62) - 1, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
    };
    for (const auto& [value, bytes] : cases) {
        EXPECT_EQ(encoded(value), bytes) << value;
        EXPECT_EQ(t_encode_varint_length(value), static_cast<int>(bytes.size()));
        EXPECT_EQ(t_varint_skip(bytes.data()), static_cast<int>(bytes.size()));
        uint64_t decoded = 1;
        EXPECT_EQ(t_varint_decode(bytes.data(), 8, &decoded), static_cast<int>(bytes.size()));
        EXPECT_EQ(decoded, value);
        EXPECT_EQ(t_varint_decode(bytes.data(), static_cast<uint32_t>(bytes.size()) - 1, &decoded), 0);
        EXPECT_EQ(decoded, 0u);
    }
}

TEST(varint, drops_what_does_not_fit_and_writes_nothing_without_room) {
    EXPECT_EQ(encoded((uint64_t{1} << 62) + 5), (bytes_t{0xC0, 0, 0, 0, 0, 0, 0, 5}));
    for (const uint64_t value : {uint64_t{0}, uint64_t{64}, uint64_t{16384}, uint64_t{1} << 30}) {
        bytes_t out(8, 0xEE);
        const auto room = static_cast<uint32_t>(t_encode_varint_length(value) - 1);
        EXPECT_EQ(t_varint_encode(out.data(), room, value), 0);
        EXPECT_EQ(out, bytes_t(8, 0xEE));
    }
}

TEST(varint, reads_the_long_form_of_a_small_value) {
    bytes_t out(2);
    t_varint_encode_16(out.data(), 5);
    EXPECT_EQ(out, (bytes_t{0x40, 0x05}));
    uint64_t value = 0;
    EXPECT_EQ(t_varint_decode(out.data(), 2, &value), 2);
    EXPECT_EQ(value, 5u);
    t_varint_encode_16(out.data(), 0xFFFF);
    EXPECT_EQ(out, (bytes_t{0x7F, 0xFF}));
}

TEST(big_endian, writes_most_significant_first_and_no_byte_more) {
    bytes_t out(9, 0xEE);
    t_format_64(out.data(), 0x0102030405060708);
    EXPECT_EQ(out, (bytes_t{1, 2, 3, 4, 5, 6, 7, 8, 0xEE}));
    t_format_32(out.data(), 0xA1A2A3A4);
    t_format_24(out.data() + 4, 0xFFB1B2B3);
    EXPECT_EQ(out, (bytes_t{0xA1, 0xA2, 0xA3, 0xA4, 0xB1, 0xB2, 0xB3, 8, 0xEE}));
    t_format_16(out.data() + 7, 0xC1C2);
    EXPECT_EQ(out[7], 0xC1);
    EXPECT_EQ(out[8], 0xC2);
}

}  // namespace
