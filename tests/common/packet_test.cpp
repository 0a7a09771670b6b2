#include "common/packet.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/fake/fake_platform.h"
#include "tests/fake/frames.h"

namespace {

using fake::body_of;
using fake::frame;
using tandem::packet_t;

// What check_and_push says and takes of `bytes`.
std::pair<uint32_t, uint32_t> push(packet_t& packet, const std::string& bytes) {
    uint32_t consumed = 77;
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    const uint32_t result = packet.check_and_push(data, static_cast<uint32_t>(bytes.size()), consumed);
    return {result, consumed};
}

using said_t = std::pair<uint32_t, uint32_t>;

TEST(packing, takes_the_shortest_form) {
    const auto packed = [](auto write) {
        packet_t packet(0);
        EXPECT_GE(write(packet), 0);
        return body_of(packet);
    };
    EXPECT_EQ(packed([](packet_t& p) { return p.pack_int16(-100); }), "\xD0\x9C");
    EXPECT_EQ(packed([](packet_t& p) { return p.pack_uint32(70000); }), std::string("\xCE\x00\x01\x11\x70", 5));
    EXPECT_EQ(packed([](packet_t& p) { return p.pack_string("abc", 2); }), std::string("\xA2") + "ab");
    EXPECT_EQ(packed([](packet_t& p) { return p.pack_string(std::string(32, 'x')); }), "\xD9 " + std::string(32, 'x'));
    EXPECT_EQ(packed([](packet_t& p) { return p.pack_bin(nullptr, 0); }), std::string("\xC4\x00", 2));
    EXPECT_EQ(packed([](packet_t& p) { return p.pack_map_raw(16); }), std::string("\xDE\x00\x10", 3));
    EXPECT_EQ(packed([](packet_t& p) { return p.pack_float(1.5f); }), std::string("\xCA\x3F\xC0\x00\x00", 5));
    packet_t packet(0);
    EXPECT_EQ(packet.pack_string(nullptr, 3), -1);
    EXPECT_LT(packet.pack_array_raw(-1), 0);
    EXPECT_EQ(packet.size(), 0u);
}

TEST(packing, grows_by_the_request_and_512_and_refuses_sums_that_wrap) {
    packet_t packet(10);
    uint8_t data[11] = {};
    EXPECT_EQ(packet.append_buf(data, 10), 10);
    EXPECT_EQ(packet.capacity(), 10u);
    EXPECT_EQ(packet.append_buf(data, 11), 11);
    EXPECT_EQ(packet.capacity(), 10u + 512 + 16);
    for (const uint32_t huge : {0xFFFFFFFFu, 0xFFFFFE00u, 0xFFFFFDE0u, 0x80000000u})
        EXPECT_EQ(packet.append_buf(data, huge), -1);
    EXPECT_EQ(packet.size(), 21u);
}

TEST(packet, adopts_copies_or_zeroes_what_it_is_made_of) {
    void* data = std::malloc(3);
    std::memcpy(data, "abc", 3);
    packet_t copy(data, 3, false);
    packet_t adopted(data, 3, true);
    EXPECT_EQ(adopted.data(), data);
    EXPECT_EQ(body_of(copy), "abc");
    EXPECT_EQ(body_of(packet_t(nullptr, 2, true)), std::string(2, '\0'));
    packet_t filled(65536);
    std::memset(filled.data(), 'd', 9);
    filled.set_size(9);
    filled.shrink_to_size();
    EXPECT_EQ(filled.capacity(), 16u);
    EXPECT_EQ(body_of(filled), "ddddddddd");
    filled.set_size(99);
    EXPECT_EQ(filled.size(), 16u);
}

TEST(framing, takes_a_frame_and_leaves_the_next_alone) {
    packet_t packet(0);
    EXPECT_EQ(push(packet, "\x02"), (said_t{0, 1}));
    EXPECT_EQ(push(packet, "bb" + frame("ccc")), (said_t{1, 2}));
    EXPECT_EQ(body_of(packet), "bb");
    EXPECT_EQ(packet.capacity(), packet.size());
    EXPECT_EQ(push(packet, frame("ccc")), (said_t{1, 0}));
    uint32_t consumed = 0;
    EXPECT_EQ(packet.check_and_push(nullptr, 4, consumed), 1u);
}

TEST(framing, never_completes_an_empty_or_an_impossible_frame) {
    for (const std::string& header : {std::string(1, '\0'), std::string(8, '\xFF'),
                                      std::string("\xC0\0\0\x01\0\0\0\0", 8), std::string("\x41\x2C")}) {
        packet_t packet(0);
        packet.limit_frame(header.size() == 2 ? 299 : UINT32_MAX);
        const std::string data = header + std::string(20, 'b');
        EXPECT_EQ(push(packet, data), (said_t{0, header.size()}));
        EXPECT_EQ(push(packet, data), (said_t{0, 0}));
        EXPECT_EQ(packet.capacity(), 0u);
        EXPECT_EQ(packet.data(), nullptr);
    }
}

TEST(framing, a_partial_packet_may_be_appended_to) {
    packet_t packet(0);
    EXPECT_EQ(push(packet,
                   "\xBF\xFF\xFF\xFF"
                   "bbbb"),
              (said_t{0, 8}));
    EXPECT_EQ(packet.capacity(), 0x3FFFFFFFu);
    std::vector<uint8_t> more(20000, 'm');
    EXPECT_EQ(packet.append_buf(more.data(), 20000), 20000);
    EXPECT_EQ(body_of(packet), "bbbb" + std::string(20000, 'm'));
}

class hand_over : public testing::Test {
  protected:
    hand_over() {
        fake::reset();
        connection_ = fake::connect("tndm", fake::make_instance(true));
    }
    fake::connection_t* connection_ = nullptr;
};

TEST_F(hand_over, queues_header_and_body_once) {
    packet_t packet(0);
    packet.pack_bin(std::vector<uint8_t>(297, 'b').data(), 297);
    EXPECT_EQ(packet.add_to_tndm(connection_, 4, 0), 302);
    EXPECT_EQ(fake::calls(), (std::vector<std::string>{"add_to_stream 4 2 fin=0", "add_to_stream_ext 4 300 fin=0"}));
    EXPECT_EQ(fake::sent(connection_, 4).substr(0, 5), "\x41\x2C\xC5\x01\x29");
    EXPECT_TRUE(packet.handed_over());
    EXPECT_EQ(packet.capacity(), packet.size());
    EXPECT_LT(packet.pack_nil(), 0);
    EXPECT_EQ(fake::printed([&] { EXPECT_EQ(packet.add_to_tndm(connection_, 4, 0), -1); }),
              fake::text("[add_to_tndm:651]Packet - ERROR! Duplicate adding to link stream of [%p]\n",
                         static_cast<void*>(&packet)));
    EXPECT_EQ(fake::calls().size(), 2u);
}

TEST_F(hand_over, sends_an_empty_packet_only_as_the_end) {
    packet_t packet(0);
    EXPECT_EQ(packet.add_to_tndm(connection_, 0, 0), 0);
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_EQ(packet.add_to_tndm(connection_, 0, 1), 1);
    EXPECT_FALSE(packet.handed_over());
    EXPECT_EQ(fake::sent(connection_, 0), fake::end_of_stream);
    EXPECT_TRUE(fake::stream(connection_, 0).fin);
    packet.fin = 1;
    EXPECT_EQ(packet.add_to_tndm(connection_, 4, 0), 1);
    packet_t last(0);
    last.pack_nil();
    last.fin = 1;
    EXPECT_EQ(last.add_to_tndm(connection_, 8, 0), 2);
    EXPECT_TRUE(fake::stream(connection_, 8).fin);
}

TEST_F(hand_over, keeps_the_body_that_the_transport_refused) {
    packet_t packet(0), end(0);
    packet.pack_string("kept");
    fake::fail("tndm_add_to_stream_ext");
    EXPECT_EQ(packet.add_to_tndm(connection_, 0, 0), -1);
    EXPECT_FALSE(packet.handed_over());
    fake::heal("tndm_add_to_stream_ext");
    EXPECT_EQ(packet.add_to_tndm(connection_, 4, 0), 6);
    fake::fail("tndm_add_to_stream");
    EXPECT_EQ(end.add_to_tndm(connection_, 8, 1), -1);
}

}  // namespace
