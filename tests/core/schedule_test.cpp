// Which path carries what: what the schedules promise, seen from the receiver.
#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

class schedules : public bundle_test {
  protected:
    // Sends `count` messages of `size` bytes, one every `interval`, and gives what each took until its last byte was
    // there, in ascending order.
    std::vector<duration> message_times(size_t count, uint64_t size, duration interval, uint64_t stream = 0) {
        const instant from = sim().now();
        for (size_t i = 0; i < count; ++i) {
            send(client(), stream, size);
            run_for(interval);
        }
        run_for(2s);
        std::vector<duration> times;
        uint64_t arrived = 0;
        for (const host::event& e : server().log) {
            if (e.at < from || e.stream != stream) {
                continue;
            }
            for (arrived += e.bytes; times.size() < count && arrived >= (times.size() + 1) * size;) {
                times.push_back(e.at - (from + static_cast<int>(times.size()) * interval));
            }
        }
        EXPECT_EQ(times.size(), count);
        std::sort(times.begin(), times.end());
        return times;
    }
    static duration quantile(const std::vector<duration>& sorted, double share) {
        return sorted.at(static_cast<size_t>(share * static_cast<double>(sorted.size() - 1)));
    }
    void warm_up() {
        send(client(), 0, 1'000'000);
        run_until_done(10s);
    }
    uint64_t carried(size_t path) { return sim().forth(path).bytes_carried(); }
};

TEST_F(schedules, small_messages_leave_a_far_path_alone) {
    start({{.mbit = 50, .delay = 5ms}, {.mbit = 50, .delay = 75ms}});
    warm_up();
    const auto times = message_times(100, 20'000, 40ms);
    EXPECT_LT(quantile(times, 1.0), 30ms);
    expect_intact();
}

// The near path takes a chunk every 0.12 ms; bulk is on its way over the far one, whose queue is full.
TEST_F(schedules, small_messages_wait_neither_behind_bulk_nor_on_the_far_path) {
    start({{.mbit = 80, .delay = 10ms}, {.mbit = 20, .delay = 40ms}}, with_window(300'000));
    warm_up();
    send(client(), 4, 60'000'000);
    run_for(1s);
    const auto times = message_times(150, 200, 20ms, 8);
    EXPECT_LT(quantile(times, 0.98), 30ms);
    run_until_done(20s);
    EXPECT_GT(mbit(server().total_received, elapsed()), 75) << "bulk must not pay for it";
    expect_intact();
}

// Eleven streams share 20 Mbit/s, each with a right to its part; and so it is with streams of one message each.
TEST_F(schedules, many_small_streams_do_not_starve_bulk) {
    for (const bool short_lived : {false, true}) {
        start({{.mbit = 20, .delay = 10ms}}, with_window(60'000));
        warm_up();
        send(client(), 4, 20'000'000);
        const uint64_t before = server().received[4].bytes;
        for (uint64_t i = 0; i < 1000; ++i) {
            send(client(), 8 + 4 * (short_lived ? i : i % 10), 8000, short_lived);  // 32 Mbit/s in all
            run_for(2ms);
        }
        EXPECT_GT(mbit(server().received[4].bytes - before, 2s), 20.0 / 11 * 0.8);
        run_until_done(60s);
        expect_intact();
    }
}

// Where it is slow they go on by chunks, so that nobody waits long; where it is fast a chunk is not worth a change.
TEST_F(schedules, turns_in_bulk_last_half_a_millisecond_up_to_64_kib) {
    constexpr size_t room = 1200;
    const std::vector<std::pair<uint64_t, uint64_t>> expected = {{1'000'000, 0}, {20'000'000, 10'000}, {~0U, 65'536}};
    for (const auto& [rate, bytes] : expected) {
        start({{.mbit = 50, .delay = 5ms}}, with_window(60'000));
        warm_up();
        core::bundle& b = client().bundle;
        const core::lane_id lane = sim().lane_of(client(), 0)->id();
        b.set_rate(lane, rate);
        for (const uint64_t stream : {4, 8, 12})
            ASSERT_TRUE(b.queue(stream, core::buffer::copy_of(std::vector<uint8_t>(150'000)), false));
        std::vector<std::pair<uint64_t, uint64_t>> turns;
        for (uint64_t total = 0; total < 420'000;) {
            const auto taken = b.next(lane, room, sim().now());
            ASSERT_TRUE(taken);
            const core::transmission& record = taken->record;
            if (turns.empty() || turns.back().first != record.stream) turns.emplace_back(record.stream, 0);
            turns.back().second += record.part.size();
            total += record.part.size();
            b.sent(lane, *taken, sim().now());
        }
        turns.pop_back();
        ASSERT_GE(turns.size(), 6U);
        for (size_t i = 0; i < 6; ++i) {
            EXPECT_EQ(turns[i].first, 4 + 4 * (i % 3));
            EXPECT_GE(turns[i].second, bytes);
            EXPECT_LT(turns[i].second, bytes + room);
        }
    }
}

// The near path answers but takes nothing any more: its window is full of what it will never deliver.
TEST_F(schedules, a_near_path_that_is_stuck_is_not_waited_for) {
    start({{.mbit = 50, .delay = 5ms}, {.mbit = 50, .delay = 75ms}});
    warm_up();
    core::bundle& b = client().bundle;
    const core::lane_id near = sim().lane_of(client(), 0)->id();
    const core::lane_id far = sim().lane_of(client(), 1)->id();
    b.set_rate(near, 10'000'000);
    ASSERT_TRUE(b.queue(0, core::buffer::copy_of(std::vector<uint8_t>(5000)), false));
    const instant now = sim().now();
    EXPECT_FALSE(b.next(far, 1200, now));
    EXPECT_LE(b.next_deadline(), now + 75ms);
    b.on_time(now + 75ms);
    const auto taken = b.next(far, 1200, now + 75ms);
    ASSERT_TRUE(taken);
    b.sent(far, *taken, now + 75ms);
    EXPECT_TRUE(b.next(far, 1200, now + 76ms)) << "one chunk must not start the wait anew";
}

TEST_F(schedules, a_near_path_with_nothing_else_to_do_copies_once_what_a_far_one_owes) {
    start({{.mbit = 50, .delay = 5ms}, {.mbit = 50, .delay = 75ms}});
    warm_up();
    core::bundle& b = client().bundle;
    const core::lane_id near = sim().lane_of(client(), 0)->id();
    const core::lane_id far = sim().lane_of(client(), 1)->id();
    ASSERT_TRUE(b.queue(0, core::buffer::copy_of(std::vector<uint8_t>(1000)), false));
    const instant now = sim().now();
    ASSERT_FALSE(b.next(far, 1200, now));
    const auto late = b.next(far, 1200, now + 75ms);
    ASSERT_TRUE(late);
    b.sent(far, *late, now + 75ms);
    const auto copy = b.next(near, 1200, now + 80ms);
    ASSERT_TRUE(copy && copy->is_copy);
    EXPECT_EQ(copy->record.part.begin, late->record.part.begin);
    EXPECT_EQ(copy->record.part.end, late->record.part.end);
    b.sent(near, *copy, now + 80ms);
    EXPECT_FALSE(b.next(near, 1200, now + 81ms));
}

TEST_F(schedules, a_backup_path_is_used_only_while_no_other_works) {
    start({{.mbit = 50, .delay = 10ms}, {.mbit = 50, .delay = 10ms, .backup = true}});
    send(client(), 0, 5'000'000);
    run_for(3s);
    EXPECT_TRUE(sim().all_delivered());
    EXPECT_LT(carried(1), 10'000U);
    sim().go_dark(0);
    send(client(), 0, 5'000'000);
    run_for(4s);
    EXPECT_TRUE(sim().all_delivered());
    EXPECT_GT(carried(1), 5'000'000U);
    sim().come_back(0);
    run_for(3s);
    const uint64_t before = carried(1);
    send(client(), 0, 5'000'000, true);
    run_until_done(10s);
    EXPECT_LT(carried(1), before + 50'000);
    expect_intact();
}

TEST_F(schedules, redundancy_hides_losses_that_strike_one_path) {
    const std::vector<link_settings> paths{{.mbit = 20, .delay = 10ms, .loss = 0.05},
                                           {.mbit = 20, .delay = 15ms, .loss = 0.05}};
    start(paths, with_window(100'000, 5));
    warm_up();
    const duration single = quantile(message_times(1000, 200, 10ms), 0.97);
    start(paths, with_window(100'000, 5));
    client().bundle.set_schedule(core::redundant());
    warm_up();
    const duration both = quantile(message_times(1000, 200, 10ms), 0.97);
    expect_intact();
    EXPECT_GT(single, 25ms);  // some were lost and sent again
    EXPECT_LT(both, 20ms);    // the other copy was there
    // In bulk it is as fast as the better path, however far the other one lags behind.
    start({{.mbit = 20, .delay = 10ms, .loss = 0.01}, {.mbit = 2, .delay = 100ms, .loss = 0.01}},
          with_window(100'000, 5));
    client().bundle.set_schedule(core::redundant());
    send(client(), 0, 10'000'000, true);
    EXPECT_GT(mbit(10'000'000, run_until_done(20s)), 17);
    expect_intact();
}

}  // namespace
}  // namespace tndm::sim
