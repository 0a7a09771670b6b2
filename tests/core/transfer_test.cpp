// Bulk data over paths that lose, reorder and differ.
#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

using transfer = bundle_test;

constexpr uint64_t megabyte = 1 << 20;

TEST_F(transfer, both_ways_over_one_clean_path_at_almost_its_rate) {
    start({{.mbit = 50, .delay = 20ms}});
    send(client(), 0, 20 * megabyte, true);
    send(server(), 1, 5 * megabyte, true);
    const duration took = run_until_done(20s);
    expect_intact();
    EXPECT_GT(mbit(20 * megabyte, took), 38);
}

TEST_F(transfer, two_unequal_paths_add_up) {
    start({{.mbit = 80, .delay = 10ms}, {.mbit = 20, .delay = 40ms}}, with_window(300'000));
    send(client(), 0, 50 * megabyte, true);
    const duration took = run_until_done(30s);
    expect_intact();
    EXPECT_GT(mbit(50 * megabyte, took), 80);
    EXPECT_LT(longest_pause(server(), after(1s)), 300ms);
}

// A hole that the slow path were to fill would keep what follows it waiting for that path's loaded round trip.
TEST_F(transfer, holes_are_filled_over_the_faster_path) {
    start({{.mbit = 40, .delay = 150ms, .loss = 0.01}, {.mbit = 40, .delay = 10ms, .loss = 0.01}},
          with_window(150'000, 5));
    send(client(), 0, 20 * megabyte, true);
    run_until_done(30s);
    expect_intact();
    const auto resent = [&](size_t path) { return sim().lane_of(client(), path)->counters().bytes_resent; };
    EXPECT_GT(resent(1), 100'000U);
    EXPECT_LT(resent(0), resent(1) / 50);
}

TEST_F(transfer, independent_and_bursty_losses_cost_little_more_than_themselves) {
    for (const double loss : {0.01, 0.05}) {
        for (const double burst : {1.0, 8.0}) {
            SCOPED_TRACE("loss " + std::to_string(loss) + " burst " + std::to_string(burst));
            start({{.mbit = 50, .delay = 20ms, .loss = loss, .burst = burst}}, with_window(300'000, 7));
            send(client(), 0, 10 * megabyte, true);
            send(server(), 1, megabyte, true);
            const duration took = run_until_done(20s);
            expect_intact();
            EXPECT_GT(mbit(10 * megabyte, took), 35);
        }
    }
}

TEST_F(transfer, reordering_is_not_taken_for_loss) {
    start({{.mbit = 50, .delay = 20ms, .jitter = 8ms}}, with_window(400'000));
    send(client(), 0, 10 * megabyte, true);
    const duration took = run_until_done(20s);
    expect_intact();
    EXPECT_GT(mbit(10 * megabyte, took), 35);
    // The carrier declares much of it lost too early; the hold-off has to catch most of that.
    EXPECT_LT(sim().lane_of(client(), 0)->counters().bytes_resent, megabyte / 3);
}

// The last chunks of a burst are lost and nothing follows that could tell.
TEST_F(transfer, the_tail_of_a_burst_is_recovered_without_further_data) {
    for (const carrier_settings& habit :
         {carrier_settings{}, carrier_settings{.forgets = 1}, carrier_settings{.probes_tails = false},
          carrier_settings{.forgets = 1, .probes_tails = false}}) {
        SCOPED_TRACE("forgets " + std::to_string(habit.forgets) + ", probes tails " +
                     std::to_string(habit.probes_tails));
        options o;
        o.carriers = habit;
        start({{.mbit = 50, .delay = 20ms}}, o);
        send(client(), 0, 30'000);
        run_until_done(2s);
        unsigned seen = 0;
        sim().forth(0).hand = [&seen](const packet& p) -> std::optional<duration> {
            const bool tail = p.datagram.size() > 100 && ++seen > 4 && seen <= 8;
            return tail ? std::nullopt : std::optional(duration{0});
        };
        send(client(), 0, 8 * 1190, true);
        // A probe timeout takes about three round trips at first; a lane that has fallen silent answers a probe after
        // 100 ms and a round trip.
        EXPECT_LT(run_until_done(3s), 500ms);
        expect_intact();
    }
}

// A library that now and then never says what became of a datagram must not stop a stream.
TEST_F(transfer, losses_that_are_never_reported_are_found_out) {
    options o = with_window(300'000, 3);
    o.carriers.forgets = 0.3;
    // So large that the sender never stops for a hole: nothing falls silent.
    o.server.stream_window = o.server.connection_window = 100 * megabyte;
    start({{.mbit = 50, .delay = 20ms, .loss = 0.01}}, o);
    send(client(), 0, 30 * megabyte, true);
    send(server(), 1, megabyte, true);
    run_until_done(20s);
    expect_intact();
    EXPECT_LT(longest_pause(server(), after(0s)), 1500ms);
}

TEST_F(transfer, windows_grow_to_a_large_bandwidth_delay_product) {
    // 400 Mbit/s over 200 ms hold 10 MB; the first windows are 1 and 4 MB.
    start({{.mbit = 400, .delay = 100ms}}, with_window(12'000'000));
    send(client(), 0, 120 * megabyte, true);
    const duration took = run_until_done(20s);
    expect_intact();
    EXPECT_GT(mbit(120 * megabyte, took), 250);
    EXPECT_LE(server().most_held, uint64_t{24} * megabyte);
}

// While a far path's loss is being found out and filled, the near one must go on: the windows grow to hold that.
TEST_F(transfer, windows_grow_while_a_hole_is_open) {
    start({{.mbit = 80, .delay = 20ms}, {.mbit = 5, .delay = 150ms, .loss = 0.05}}, with_window(500'000, 2));
    send(client(), 0, 20 * megabyte, true);
    const duration took = run_until_done(20s);
    expect_intact();
    EXPECT_GT(mbit(20 * megabyte, took), 60);
    EXPECT_LE(server().most_held, uint64_t{24} * megabyte);
}

TEST_F(transfer, an_idle_connection_sends_only_heartbeats) {
    options o;
    o.heartbeat = 1s;
    start({{}}, o);
    send(client(), 0, 10'000);
    run_until_done(1s);
    const auto before = sim().lane_of(client(), 0)->in_flight().next_id();
    run_for(20s);
    const auto beats = sim().lane_of(client(), 0)->in_flight().next_id() - before;
    EXPECT_GE(beats, 18U);
    EXPECT_LE(beats, 21U);
    expect_intact();
}

}  // namespace
}  // namespace tndm::sim
