// Streams beside each other: order across them, turns, pauses, credit.
#include <set>

#include "platform/tndm/core/wire.h"
#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

using stream = bundle_test;

constexpr uint64_t megabyte = 1 << 20;

// Loses the first `times` packets that carry bytes of the stream.
std::function<std::optional<duration>(const packet&)> lose(uint64_t id, unsigned times) {
    return [id, times](const packet& p) mutable -> std::optional<duration> {
        const auto frame = core::wire::decode(p.datagram);
        const auto* chunk = frame ? std::get_if<core::wire::chunk>(&*frame) : nullptr;
        if (chunk != nullptr && chunk->stream == id && times != 0) {
            --times;
            return std::nullopt;
        }
        return duration{0};
    };
}

void expect_first(const host& at, uint64_t first, uint64_t length) {
    uint64_t seen = 0;
    for (const host::event& e : at.log) {
        if (e.stream == first) {
            seen += e.bytes;
        } else {
            ASSERT_GE(seen, length) << "stream " << e.stream << " was delivered before stream " << first;
        }
    }
}

TEST_F(stream, what_was_queued_first_is_delivered_first_although_just_that_is_lost) {
    for (unsigned times = 0; times < 5; ++times) {
        start({{.delay = 10ms}, {.delay = 50ms}});
        sim().back(0).hand = lose(1, times);
        sim().back(1).hand = lose(1, times);
        send(server(), 1, 3);
        send(server(), 5, 200);
        send(server(), 9, 20'000, true);
        run_for(20ms);
        send(server(), 13, 500);
        run_until_done(10s);
        expect_intact();
        expect_first(client(), 1, 3);
    }
}

TEST_F(stream, paused_holds_a_bounded_amount_and_the_others_go_on) {
    start({{.mbit = 200, .delay = 10ms}}, with_window(700'000));
    send(client(), 0, 1000);
    send(client(), 4, 1);
    run_until_done(1s);
    sim().pause(server(), 0, true);
    send(client(), 0, 40 * megabyte, true);
    send(client(), 4, 40 * megabyte, true);
    EXPECT_TRUE(sim().run_until([&] { return server().received[4].ended; }, 10s));
    EXPECT_EQ(server().received[0].bytes, 1000U);
    // One stream's first window is all that is held: a paused stream is granted nothing more.
    EXPECT_LE(server().bundle.bytes_held(), megabyte + 1000);
    EXPECT_EQ(sim().complaint(), "");
    sim().pause(server(), 0, false);
    run_until_done(10s);
    expect_intact();
}

TEST_F(stream, that_nobody_reads_ends_early_and_the_others_go_on) {
    // With these some of the words that end it are lost.
    for (const uint64_t seed : {1, 2, 3, 4}) {
        start({{.mbit = 20, .delay = 10ms, .loss = 0.4}, {.mbit = 20, .delay = 40ms}}, with_window(100'000, seed));
        send(client(), 0, 10, true);
        send(client(), 4, 20 * megabyte);
        send(client(), 8, megabyte, true);
        EXPECT_TRUE(sim().run_until([&] { return server().received[4].bytes > 100'000; }, 2s));
        server().bundle.stop(4);
        sim().finish(server(), 4);
        sim().finish(server(), 8);
        EXPECT_TRUE(sim().run_until([&] { return server().received[4].ended && server().received[8].ended; }, 3s));
        EXPECT_LT(server().received[4].bytes, 3 * megabyte);
        EXPECT_FALSE(client().bundle.queue(4, {}, true));
        EXPECT_TRUE(sim().run_until([&] { return client().bundle.drained() && server().bundle.drained(); }, 2s));
        EXPECT_EQ(sim().complaint(), "");
    }
}

TEST_F(stream, credit_that_is_lost_on_the_way_is_told_again) {
    options o;
    o.server.streams = 1;
    start({{.delay = 5ms, .loss = 0.2}}, o);
    for (uint64_t i = 0; i < 60; ++i) {
        send(client(), 4 * i + 2, 10, true);
        EXPECT_TRUE(sim().run_until([&] { return client().bundle.stream_credit(1) == i + 2; }, 3s)) << i;
    }
    run_until_done(3s);
    expect_intact();
}

TEST_F(stream, small_ones_take_turns_with_a_large_one) {
    start({{.mbit = 50, .delay = 10ms}}, with_window(150'000));
    // What comes first on the first stream goes before everything else; the rest takes turns.
    send(client(), 0, 1);
    send(client(), 4, 1);
    send(client(), 0, 20 * megabyte, true);
    run_for(500ms);
    const instant from = sim().now();
    for (uint64_t i = 1; i <= 100; ++i) {
        send(client(), 4 * i, 20'000, true);
    }
    // 2 MB in all, a third of a second of the link; the large one gets one turn in 101.
    const auto small_done = [&] {
        return std::all_of(server().received.begin(), server().received.end(),
                           [](const auto& r) { return r.first == 0 || r.second.ended; });
    };
    run_for(100ms);
    EXPECT_TRUE(sim().run_until([&] { return server().received.size() == 101 && small_done(); }, 1s));
    EXPECT_LT(sim().now() - from, 700ms);
    std::set<instant> ends;
    for (uint64_t i = 1; i <= 100; ++i) {
        ends.insert(server().received[4 * i].last_at);
    }
    EXPECT_LT(*ends.rbegin() - *ends.begin(), 100ms) << "equal streams end together";
    run_until_done(20s);
    expect_intact();
}

}  // namespace
}  // namespace tndm::sim
