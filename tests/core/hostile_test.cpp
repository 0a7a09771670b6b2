// A peer that makes up its datagrams: each may be dropped, processed or end the connection, and nothing else.
#include <gtest/gtest.h>
#include <malloc.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/tndm/core/bundle.h"
#include "tests/core/random.h"

namespace tndm::core {
namespace {

using namespace std::chrono_literals;
using bytes = std::vector<uint8_t>;

constexpr uint64_t megabyte = 1 << 20;

// QUIC's variable-length integer; always eight bytes when `wide`.
void put(bytes& to, uint64_t value, bool wide = false) {
    const unsigned log = wide || value >= 1U << 30 ? 3 : value >= 1U << 14 ? 2 : value >= 1U << 6 ? 1 : 0;
    for (int i = (1 << log) - 1; i >= 0; --i) {
        const auto byte = static_cast<uint8_t>(value >> (8 * i));
        to.push_back(i == (1 << log) - 1 ? static_cast<uint8_t>((byte & 0x3f) | log << 6) : byte);
    }
}

bytes frame(uint8_t type, std::initializer_list<uint64_t> numbers, const bytes& tail = {}) {
    bytes made{type};
    for (const uint64_t n : numbers) {
        put(made, n);
    }
    made.insert(made.end(), tail.begin(), tail.end());
    return made;
}

bytes chunk(uint64_t stream, uint64_t offset, const bytes& data, bool last = false) {
    return frame(last ? 0x09 : 0x08, {stream, offset}, data);
}

bytes prefaced(uint64_t stream, uint64_t offset, uint64_t first, uint64_t length, const bytes& data) {
    return frame(0x0a, {stream, offset, first, length}, data);
}

size_t heap_in_use() {
    return mallinfo2().uordblks;
}

// A server at the mercy of its client: 0, 4, 8, ... are the client's streams both ways, 2, 6, ... its one-way ones.
class hostile : public ::testing::Test {
  protected:
    void SetUp() override { fresh(); }
    void fresh(const limits& own = {}) {
        own_ = own;
        server_.emplace(role::server, own, limits{});
        now_ = instant{} + 1000s;
        lane_ = server_->add_lane(now_);
    }
    void give(const bytes& datagram) {
        now_ += 1us;
        server_->received(datagram, now_);
        ASSERT_LE(server_->bytes_held(), own_.connection_window_max + own_.paused_allowance);
    }
    void expect_accepted(const bytes& datagram) {
        give(datagram);
        EXPECT_EQ(server_->violation(), "");
    }
    // And starts anew.
    void expect_violation(const bytes& datagram) {
        give(datagram);
        EXPECT_NE(server_->violation(), "");
        delivery out;
        EXPECT_FALSE(server_->take_delivery(out, now_));
        fresh(own_);
    }
    std::string take_all(uint64_t stream) {
        std::string taken;
        delivery out;
        while (server_->take_delivery(out, now_)) {
            if (out.stream == stream) {
                taken.append(out.bytes.begin(), out.bytes.end());
                ended_ = ended_ || out.last;
            }
        }
        return taken;
    }
    // All that the server has to send now goes out and is acknowledged.
    void exchange() {
        while (const auto out = server_->next(lane_, 1200, now_)) {
            const uint64_t id = server_->next_id(lane_);
            server_->sent(lane_, *out, now_);
            server_->acknowledged(lane_, id, now_);
        }
        server_->take_closed();
        server_->take_sent();
    }

    limits own_;
    std::optional<bundle> server_;
    instant now_;
    lane_id lane_ = 0;
    bool ended_ = false;
};

TEST_F(hostile, truncated_and_unknown_frames_end_the_connection) {
    struct {
        bytes whole;
        size_t head;  // from here on any length is a frame
    } const kinds[] = {
        {{0x00, 1, 2, 3}, 1},
        {frame(0x01, {uint64_t{1} << 40}), SIZE_MAX},
        {frame(0x02, {uint64_t{1} << 20, 77777}), SIZE_MAX},
        {frame(0x03, {1, 5000}), SIZE_MAX},
        {chunk(400, 70000, {1, 2, 3}), 7},
        {chunk(400, 70000, {1, 2, 3}, true), 7},
        {prefaced(400, 70000, 500, 100000, {1, 2, 3}), 13},
    };
    for (const auto& kind : kinds) {
        SCOPED_TRACE("type " + std::to_string(kind.whole[0]));
        fresh();
        expect_accepted(kind.whole);
        for (size_t length = 0; length < kind.whole.size(); ++length) {
            SCOPED_TRACE("length " + std::to_string(length));
            fresh();
            const bytes cut(kind.whole.begin(), kind.whole.begin() + static_cast<ptrdiff_t>(length));
            length < kind.head ? expect_violation(cut) : expect_accepted(cut);
        }
    }
    for (const bytes& longer : {frame(0x01, {5}, {0}), frame(0x02, {4, 5}, {0}), frame(0x03, {0, 5}, {0})}) {
        expect_violation(longer);
    }
    for (unsigned type = 4; type < 256; ++type) {
        if (type < 8 || type > 11) {
            SCOPED_TRACE(type);
            expect_violation(frame(static_cast<uint8_t>(type), {0, 0, 0, 0}));
        }
    }
    expect_violation(frame(0x03, {2, 10}));
}

TEST_F(hostile, windows_are_kept_to_the_byte) {
    own_.stream_window = own_.stream_window_max = 1000;
    own_.connection_window = own_.connection_window_max = 2500;
    fresh(own_);
    expect_accepted(chunk(0, 999, {1}));
    expect_violation(chunk(0, 1000, {1}));
    expect_violation(chunk(0, 999, {1, 2}));
    expect_violation(chunk(0, 1001, {}, true));
    expect_accepted(chunk(0, 1000, {}, true));
    expect_accepted(chunk(4, 999, {1}));
    expect_accepted(chunk(8, 499, {1}));
    expect_accepted(chunk(8, 499, {1}));
    expect_violation(chunk(8, 500, {1}));
    // Holes count like bytes; bytes that come twice count once.
    for (uint64_t i = 0; i < 1000; ++i) {
        expect_accepted(chunk(0, i, bytes(1000 - i, 7)));
    }
}

TEST_F(hostile, stream_ids_are_kept_to_what_was_granted) {
    expect_accepted(chunk(4 * 1023, 0, {1}));
    expect_accepted(chunk(4 * 1023 + 2, 0, {1}));
    expect_violation(chunk(4 * 1024, 0, {1}));
    expect_violation(chunk(4 * 1024 + 2, 0, {1}));
    expect_violation(chunk(wire::varint_max - 3, 0, {1}));
    expect_violation(chunk(1, 0, {1}));  // the server's, not opened
    expect_violation(chunk(3, 0, {1}));
    ASSERT_TRUE(server_->queue(1, buffer::copy_of(bytes{1}), false));
    ASSERT_TRUE(server_->queue(3, buffer::copy_of(bytes{1}), false));
    expect_accepted(chunk(1, 0, {1}));
    expect_violation(chunk(3, 0, {1}));  // one way: ours to write
    EXPECT_FALSE(server_->queue(2, buffer::copy_of(bytes{1}), false));
    expect_accepted(frame(0x02, {2, 100}));
    expect_accepted(frame(0x02, {4000, 100}));
}

TEST_F(hostile, an_end_cannot_be_moved) {
    expect_accepted(chunk(0, 0, bytes(100, 1)));
    expect_violation(chunk(0, 0, bytes(99, 1), true));
    expect_accepted(chunk(0, 50, bytes(50, 1), true));
    expect_accepted(chunk(0, 50, bytes(50, 1), true));
    expect_violation(chunk(0, 50, bytes(51, 1)));
    expect_accepted(chunk(0, 100, {}, true));
    expect_violation(chunk(0, 101, {}, true));
    expect_accepted(chunk(0, 0, {}, true));
    expect_violation(chunk(0, 0, {1}));
}

TEST_F(hostile, different_bytes_for_one_place_are_delivered_once) {
    sim::dice d(3);
    for (int round = 0; round < 200; ++round) {
        fresh();
        std::string got;
        bool ended = false;
        for (int i = 0; i < 60; ++i) {
            const uint64_t begin = d.below(500);
            const bytes data(d.below(60), static_cast<uint8_t>('a' + d.below(26)));
            give(chunk(0, begin, data));
            got += d.chance(0.5) ? take_all(0) : "";
        }
        for (uint64_t at = 0; at < 600; at += 60) {
            give(chunk(0, at, bytes(60, 'Z'), at == 540));
        }
        got += take_all(0);
        ended = std::exchange(ended_, false);
        ASSERT_EQ(server_->violation(), "");
        ASSERT_EQ(got.size(), 600U);
        ASSERT_TRUE(ended);
        ASSERT_EQ(server_->bytes_held(), 0U);
    }
}

TEST_F(hostile, chunks_of_streams_that_are_over_are_ignored) {
    expect_accepted(chunk(2, 0, {1, 2, 3}, true));
    EXPECT_EQ(take_all(2).size(), 3U);
    EXPECT_EQ(server_->take_closed(), std::vector<uint64_t>{2});
    expect_accepted(chunk(2, 0, {1, 2, 3}, true));
    expect_accepted(chunk(2, 0, bytes(2 * megabyte, 9)));
    expect_accepted(frame(0x02, {2, 1 << 30}));
    EXPECT_EQ(take_all(2), "");
    EXPECT_TRUE(server_->take_closed().empty());
}

TEST_F(hostile, lies_about_what_comes_first_hurt_only_the_liar) {
    // After the fact, about a stream that will never come: everything of the client waits, within the windows.
    expect_accepted(chunk(0, 0, {1}));
    EXPECT_EQ(take_all(0).size(), 1U);
    expect_accepted(prefaced(4, 0, wire::varint_max, wire::varint_max, {1, 2}));
    EXPECT_EQ(take_all(4), "");
    expect_accepted(prefaced(8, 0, wire::varint_max, wire::varint_max, {1, 2}));
    ASSERT_TRUE(server_->queue(1, buffer::copy_of(bytes{1}), true));
    exchange();
    for (uint64_t i = 0; server_->violation().empty(); ++i) {
        ASSERT_LT(i, 1000U);
        give(chunk(12 + 4 * i, 0, bytes(100'000, 1)));
    }
    fresh();
    expect_accepted(prefaced(4, 0, 0, 1, {1}));
    expect_violation(prefaced(4, 0, 0, 2, {1}));
    expect_accepted(prefaced(4, 0, 0, 1, {1}));
    expect_violation(prefaced(4, 0, 8, 1, {1}));
    // Of the stream itself, of one of the server's, and of no bytes at all: released by what is there.
    expect_accepted(prefaced(4, 0, 4, 2, {1, 2}));
    EXPECT_EQ(take_all(4).size(), 2U);
    fresh();
    expect_accepted(prefaced(4, 0, 1, 5, {1, 2}));
    EXPECT_EQ(take_all(4), "");
    // Paused and resumed, what is held back stays held back.
    server_->pause(4, true, now_);
    server_->pause(4, false, now_);
    EXPECT_EQ(take_all(4), "");
}

TEST_F(hostile, holes_cost_bounded_memory) {
    own_.stream_window = own_.stream_window_max = 16 << 20;
    own_.connection_window = own_.connection_window_max = 24 << 20;
    for (const bool descending : {false, true}) {
        fresh(own_);
        const size_t before = heap_in_use();
        for (uint64_t i = 0; i < 1'000'000 && server_->violation().empty(); ++i) {
            give(chunk(4 * (i % 3), descending ? 2'000'001 - 2 * i : 1 + 2 * i, {1}));
        }
        EXPECT_NE(server_->violation(), "");
        EXPECT_LT(heap_in_use(), before + 16 * megabyte);
    }
    // A byte at a time behind one hole is one run.
    fresh(own_);
    const size_t before = heap_in_use();
    for (uint64_t i = 1; i < 1'000'000; ++i) {
        give(chunk(0, i, {1}));
    }
    EXPECT_EQ(server_->violation(), "");
    EXPECT_LT(heap_in_use(), before + 4 * megabyte);
    give(chunk(0, 0, {1}));
    EXPECT_EQ(take_all(0).size(), 1'000'000U);
}

// A stream whose front comes last makes the receiver hold all of it at once; that must not stay with every stream, and
// what comes twice must not make a stream hold anything either.
TEST_F(hostile, memory_comes_back_when_bytes_are_taken) {
    const size_t before = heap_in_use();
    const bytes block(60'000, 5);
    for (const uint64_t burst : {10U, 4U}) {
        fresh();
        for (uint64_t s = 0; s < 150; ++s) {
            for (uint64_t i = 0; i < burst; ++i) {
                expect_accepted(chunk(4 * s, 1 + i * block.size(), block));
            }
            expect_accepted(chunk(4 * s, 0, {1}));
            ASSERT_EQ(take_all(4 * s).size(), 1 + burst * block.size());
            expect_accepted(chunk(4 * s, 0, {1}));
            exchange();
        }
        EXPECT_LT(heap_in_use(), before + 10 * megabyte);
    }
}

TEST_F(hostile, streams_come_and_go_without_leaving_anything) {
    const size_t before = heap_in_use();
    for (uint64_t i = 0; i < 60'000; ++i) {
        // One in sixty stays open, so that those that are over are never one single run of ids.
        give(chunk(4 * i + 2, 0, {1}, i % 60 != 0));
        take_all(0);
        exchange();
        ASSERT_EQ(server_->violation(), "") << i;
    }
    EXPECT_LT(heap_in_use(), before + 3 * megabyte);  // a thousand streams
}

TEST_F(hostile, absurd_numbers_do_not_wrap) {
    const uint64_t max = wire::varint_max;
    expect_violation(chunk(0, max, {}));
    expect_violation(chunk(0, max, {1}));
    expect_violation(chunk(0, max - 1, {1}, true));
    expect_violation(prefaced(max, max, max, max, {1, 2}));
    expect_accepted(frame(0x01, {max}));
    expect_accepted(frame(0x03, {0, max}));
    expect_accepted(frame(0x03, {1, max}));
    expect_accepted(frame(0x02, {1, max}));
    expect_accepted(frame(0x01, {0}));
    expect_accepted(frame(0x03, {0, 0}));
    EXPECT_EQ(server_->stream_credit(0), max);
    ASSERT_TRUE(server_->queue(1, buffer::copy_of(bytes(5000, 1)), true));
    expect_accepted(frame(0x02, {1, max}));
    ASSERT_TRUE(server_->queue(max - 2, buffer::copy_of(bytes(5000, 1)), true));
    exchange();
    EXPECT_TRUE(server_->drained());
    bytes overlong{0x08};
    put(overlong, 4, true);
    put(overlong, 0, true);
    expect_accepted(overlong);
}

}  // namespace
}  // namespace tndm::core
