#include <gtest/gtest.h>

#include <fstream>

#include "common/packet.h"

namespace {

using tandem::message_variant_t;
using tandem::packet_t;

packet_t packet_of(const std::string& body) {
    return packet_t(const_cast<char*>(body.data()), static_cast<uint32_t>(body.size()), false);
}

// The most address space that this process ever had, in kB.
long peak_memory() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        long peak = 0;
        if (word == "VmPeak:" && status >> peak) return peak;
    }
    return -1;
}

struct strange_unpacker : packet_t::base_unpacker {};

TEST(unpack, reads_values_in_turn_and_again_from_the_start) {
    packet_t packet(0);
    message_variant_t value("before");
    EXPECT_EQ(packet.unpack_next(packet.new_unpacker(), value), -1);
    message_variant_t::map_t map, read;
    map.emplace("b", 2LL);
    map.emplace("a", message_variant_t(std::string("text")));
    packet.pack_map(map);
    packet.pack_array({message_variant_t(-1LL), message_variant_t(true), message_variant_t()});
    packet.pack_nil();
    const auto unpacker = packet.new_unpacker();
    EXPECT_EQ(packet.unpack_next(unpacker, value), 11);
    EXPECT_EQ(value.get_map(read), 2);
    EXPECT_EQ(read.begin()->first.get_string() + read.begin()->second.get_string(), "atext");
    std::vector<message_variant_t> elements;
    EXPECT_EQ(packet.unpack_next(unpacker).get_array(elements), 3);
    EXPECT_EQ(elements[0].get_int64(), -1);
    EXPECT_EQ(packet.unpack_next(unpacker, value), 16);
    EXPECT_EQ(value.type(), MSGPACK_OBJECT_NIL);
    value.assign("kept");
    EXPECT_EQ(packet.unpack_next(unpacker, value), -1);
    EXPECT_EQ(value.get_string(), "kept");
    EXPECT_EQ(packet.unpack_next(unpacker).type(), MSGPACK_OBJECT_NIL);
    packet.reset_unpacker(unpacker);
    EXPECT_EQ(packet.unpack_next(unpacker).type(), MSGPACK_OBJECT_MAP);
    const std::shared_ptr<packet_t::base_unpacker> strange = std::make_shared<strange_unpacker>();
    for (const auto& wrong : {strange, {}}) {
        EXPECT_EQ(packet.unpack_next(wrong, value), -1);
        packet.reset_unpacker(wrong);
    }
}

TEST(unpack, every_kind_of_value_is_read_whole_and_refused_when_cut) {
    // A tag, how many bytes of a length, and how many bytes follow; then what holds further values.
    std::vector<std::string> values = {"\x7F",
                                       "\xE0",
                                       "\x92\xC2\xC3",
                                       std::string("\x82\x01\x02\x03\xC0", 5),
                                       std::string("\xDC\0\x01\xC0", 4),
                                       std::string("\xDD\0\0\0\x01\xC0", 6),
                                       std::string("\xDE\0\x01\x01\xC0", 5),
                                       std::string("\xDF\0\0\0\x01\x01\xC0", 7)};
    const struct {
        uint8_t tag;
        size_t length_size, size;
    } plain[] = {{0xA3, 0, 3},  {0xC4, 1, 2}, {0xC5, 2, 2}, {0xC6, 4, 2}, {0xC7, 1, 3}, {0xC8, 2, 3}, {0xC9, 4, 3},
                 {0xCA, 0, 4},  {0xCB, 0, 8}, {0xCC, 0, 1}, {0xCD, 0, 2}, {0xCE, 0, 4}, {0xCF, 0, 8}, {0xD0, 0, 1},
                 {0xD1, 0, 2},  {0xD2, 0, 4}, {0xD3, 0, 8}, {0xD4, 0, 2}, {0xD5, 0, 3}, {0xD6, 0, 5}, {0xD7, 0, 9},
                 {0xD8, 0, 17}, {0xD9, 1, 2}, {0xDA, 2, 2}, {0xDB, 4, 2}};
    for (const auto& [tag, length_size, size] : plain) {
        std::string bytes(1, static_cast<char>(tag));
        if (length_size > 0) bytes += std::string(length_size - 1, '\0') + '\x02';
        values.push_back(bytes + std::string(size, '1'));
    }
    for (const std::string& bytes : values) {
        packet_t whole = packet_of(bytes + "\xC0");
        message_variant_t value;
        EXPECT_EQ(whole.unpack_next(whole.new_unpacker(), value), static_cast<int>(bytes.size()))
            << testing::PrintToString(bytes);
        packet_t cut = packet_of(bytes.substr(0, bytes.size() - 1));
        EXPECT_EQ(cut.unpack_next(cut.new_unpacker(), value), -1) << testing::PrintToString(bytes);
    }
}

TEST(unpack, an_announced_number_of_elements_costs_nothing_before_they_arrive) {
    // Each level announces as many elements as its length field can say.
    for (const std::string& lie : {std::string("\xDD\xFF\xFF\xFF\xFF"), std::string("\xDF\xFF\xFF\xFF\xFF"),
                                   std::string("\xDD\x04\x00\x00\x00", 5), std::string("\xDF\x04\x00\x00\x00", 5)}) {
        std::string nested;
        for (int i = 0; i < 20; ++i) {
            nested += lie;
        }
        packet_t packet = packet_of(nested);
        const long before = peak_memory();
        ASSERT_GT(before, 0);
        message_variant_t value;
        EXPECT_EQ(packet.unpack_next(packet.new_unpacker(), value), -1);
        EXPECT_LT(peak_memory() - before, 64 * 1024);
    }
}

}  // namespace
