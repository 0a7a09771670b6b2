// Bulk data over paths that lose, reorder and differ.
#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

using transfer = bundle_test;

constexpr uint64_t megabyte = 1 << 20;
constexpr link_settings clean{.mbit = 50, .delay = 20ms};

link_settings lossy(double loss, double burst = 1) {
    link_settings made = clean;
    made.loss = loss;
    made.burst = burst;
    return made;
}

TEST_F(transfer, takes_little_longer_than_the_paths_need) {
    options forgetful = with_window(300'000, 3);
    forgetful.carriers.forgets = 0.3;
    // So large that the sender never stops for a hole: nothing falls silent.
    forgetful.server.stream_window = forgetful.server.connection_window = 100 * megabyte;
    const struct {
        const char* what;
        std::vector<link_settings> paths;
        options how;
        uint64_t up, down;  // megabytes
        double least_mbit;
        duration longest_pause = 1s;
    } rows[] = {
        {"one clean path", {clean}, {}, 20, 5, 38},
        {"two unequal paths add up",
         {{.mbit = 80, .delay = 10ms}, {.mbit = 20, .delay = 40ms}},
         with_window(300'000),
         50,
         0,
         80,
         300ms},
        {"independent losses", {lossy(0.01)}, with_window(300'000, 7), 10, 1, 35},
        {"many losses", {lossy(0.05)}, with_window(300'000, 7), 10, 1, 35},
        {"bursts of losses", {lossy(0.01, 8)}, with_window(300'000, 7), 10, 1, 35},
        {"many bursts", {lossy(0.05, 8)}, with_window(300'000, 7), 10, 1, 35},
        {"losses that are never reported", {lossy(0.01)}, forgetful, 30, 1, 25, 1500ms},
        // 400 Mbit/s over 200 ms hold 10 MB; the first windows are 1 and 4 MB.
        {"windows grow", {{.mbit = 400, .delay = 100ms}}, with_window(12'000'000), 120, 0, 250},
        // While a far path's loss is being found out and filled, the near one must go on: the windows grow to hold
        // that.
        {"windows grow while a hole is open",
         {{.mbit = 80, .delay = 20ms}, {.mbit = 5, .delay = 150ms, .loss = 0.05}},
         with_window(500'000, 2),
         20,
         0,
         60},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        start(row.paths, row.how);
        send(client(), 0, row.up * megabyte, true);
        if (row.down != 0) {
            send(server(), 1, row.down * megabyte, true);
        }
        const duration took = run_until_done(30s);
        expect_intact();
        EXPECT_GT(mbit(row.up * megabyte, took), row.least_mbit);
        EXPECT_LT(longest_pause(server(), after(1s)), row.longest_pause);
        EXPECT_LE(server().most_held, row.how.server.connection_window_max);
    }
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
    for (const double forgets : {0.0, 1.0}) {
        for (const bool probes_tails : {true, false}) {
            SCOPED_TRACE("forgets " + std::to_string(forgets) + (probes_tails ? ", probes tails" : ""));
            options o;
            o.carriers.forgets = forgets;
            o.carriers.probes_tails = probes_tails;
            start({clean}, o);
            send(client(), 0, 30'000);
            run_until_done(2s);
            unsigned seen = 0;
            sim().forth(0).hand = [&seen](const packet& p) -> std::optional<duration> {
                const bool tail = p.datagram.size() > 100 && ++seen > 4 && seen <= 8;
                return tail ? std::nullopt : std::optional(duration{0});
            };
            send(client(), 0, 8 * 1190, true);
            // A probe timeout takes about three round trips at first; a lane that has fallen silent answers a probe
            // after 100 ms and a round trip.
            EXPECT_LT(run_until_done(3s), 500ms);
            expect_intact();
        }
    }
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

// What a carrier says of datagrams that were never sent, are settled or belong to a lane that is gone changes nothing.
TEST_F(transfer, strange_news_is_ignored) {
    start({{.mbit = 50, .delay = 10ms}});
    send(client(), 0, 2'000'000, true);
    dice d(9);
    const instant end = after(1s);
    while (sim().now() < end) {
        run_for(5ms);
        core::bundle& b = client().bundle;
        const uint64_t next = b.next_id(0);
        b.lost(0, next + d.below(10), sim().now());
        b.acknowledged(0, next + d.below(10), sim().now());
        b.acknowledged(0, core::wire::varint_max, sim().now());
        b.lost(7, d.below(100), sim().now());
        b.acknowledged(7, d.below(100), sim().now());
        b.set_rtt(7, 1ms, 1ms);
        b.probe_refused(7, sim().now());
        b.remove_lane(7, sim().now());
        EXPECT_FALSE(b.next(7, 1200, sim().now()));
        EXPECT_FALSE(b.probe_copy(7, 1200));
        b.sent(7, core::bundle::probe(), sim().now());
        // Lost although it may be acknowledged or lost already: at worst it is sent twice.
        b.lost(0, d.below(next + 1), sim().now());
    }
    run_until_done(10s);
    expect_intact();
}

}  // namespace
}  // namespace tndm::sim
