#include <gtest/gtest.h>

#include <fstream>
#include <random>

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
    message_variant_t::map_t map;
    map.emplace("b", 2LL);
    map.emplace("a", message_variant_t(std::string("text")));
    packet.pack_map(map);
    packet.pack_array({message_variant_t(-1LL), message_variant_t(true), message_variant_t()});
    packet.pack_nil();
    const auto unpacker = packet.new_unpacker();
    message_variant_t value("before");
    EXPECT_EQ(packet.unpack_next(unpacker, value), 11);
    message_variant_t::map_t read;
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
}

TEST(unpack, refuses_unpackers_that_are_not_its_own_and_packets_without_bytes) {
    packet_t packet(0);
    message_variant_t value;
    EXPECT_EQ(packet.unpack_next(packet.new_unpacker(), value), -1);
    packet.pack_bool(true);
    EXPECT_EQ(packet.unpack_next(nullptr, value), -1);
    EXPECT_EQ(packet.unpack_next(std::make_shared<strange_unpacker>(), value), -1);
    packet.reset_unpacker(nullptr);
    packet.reset_unpacker(std::make_shared<strange_unpacker>());
}

TEST(unpack, every_kind_of_value_is_read_whole_and_refused_when_cut) {
    const std::string values[] = {"\x7F",
                                  "\xE0",
                                  std::string("\x82\x01\x02\x03\xC0", 5),
                                  "\x92\xC2\xC3",
                                  "\xA3xyz",
                                  "\xC4\x02xy",
                                  std::string("\xC5\0\x02xy", 5),
                                  std::string("\xC6\0\0\0\x02xy", 7),
                                  "\xC7\x02txy",
                                  std::string("\xC8\0\x02txy", 6),
                                  std::string("\xC9\0\0\0\x02txy", 8),
                                  "\xCA"
                                  "1234",
                                  "\xCB"
                                  "12345678",
                                  "\xCC"
                                  "1",
                                  "\xCD"
                                  "12",
                                  "\xCE"
                                  "1234",
                                  "\xCF"
                                  "12345678",
                                  "\xD0"
                                  "1",
                                  "\xD1"
                                  "12",
                                  "\xD2"
                                  "1234",
                                  "\xD3"
                                  "12345678",
                                  "\xD4"
                                  "t1",
                                  "\xD5"
                                  "t12",
                                  "\xD6"
                                  "t1234",
                                  "\xD7"
                                  "t12345678",
                                  "\xD8t"
                                  "1234567812345678",
                                  "\xD9\x02xy",
                                  std::string("\xDA\0\x02xy", 5),
                                  std::string("\xDB\0\0\0\x02xy", 7),
                                  std::string("\xDC\0\x01\xC0", 4),
                                  std::string("\xDD\0\0\0\x01\xC0", 6),
                                  std::string("\xDE\0\x01\x01\xC0", 5),
                                  std::string("\xDF\0\0\0\x01\x01\xC0", 7)};
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

TEST(unpack, random_bytes_never_do_more_than_fail) {
    std::mt19937_64 random(7);
    // Tags that nest and lie are made as likely as the rest.
    const std::string tags("\x81\x92\xA1\xC1\xC4\xC9\xD9\xDC\xDD\xDE\xDF\x9F\x8F", 13);
    for (int round = 0; round < 20000; ++round) {
        std::string bytes;
        for (uint64_t n = random() % 64; n > 0; --n) {
            bytes += random() % 2 == 0 ? tags[random() % tags.size()] : static_cast<char>(random() % 8);
        }
        packet_t packet = packet_of(bytes);
        const auto unpacker = packet.new_unpacker();
        message_variant_t value;
        int last = 0;
        for (int at = 0; (at = packet.unpack_next(unpacker, value)) >= 0; last = at) {
            ASSERT_GT(at, last);
            ASSERT_LE(at, static_cast<int>(bytes.size()));
            message_variant_t::map_t map;
            std::vector<message_variant_t> elements;
            value.get_map(map);
            value.get_array(elements);
            packet_t again(0);
            EXPECT_EQ(again.pack_variant(value), 0);
            EXPECT_TRUE(again.unpack_next(again.new_unpacker()) == value);
        }
    }
}

}  // namespace
