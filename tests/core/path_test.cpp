// Paths that are added and removed while they carry data, and what late news of them may do.
#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

using path = bundle_test;

TEST_F(path, removed_while_it_carries_data_owes_it_to_the_others) {
    start({{.mbit = 50, .delay = 10ms}, {.mbit = 20, .delay = 40ms}});
    send(client(), 0, 10'000'000, true);
    send(server(), 1, 10'000'000, true);
    run_for(700ms);
    const instant removal = sim().now();
    sim().remove_path(0);
    run_until_done(20s);
    expect_intact();
    EXPECT_LT(longest_pause(server(), removal), 500ms);
    EXPECT_EQ(client().bundle.lane_count(), 1U);
}

TEST_F(path, the_last_one_removed_leaves_the_bytes_to_the_next_one_that_comes) {
    start({{.mbit = 50, .delay = 10ms}});
    send(client(), 0, 5'000'000, true);
    send(server(), 1, 5'000'000, true);
    run_for(300ms);
    sim().remove_path(0);
    EXPECT_EQ(client().bundle.lane_count(), 0U);
    run_for(5s);
    EXPECT_FALSE(sim().all_delivered());
    send(client(), 4, 1000, true);
    sim().open_path({.mbit = 20, .delay = 30ms});
    run_until_done(10s);
    expect_intact();
}

TEST_F(path, added_in_the_middle_takes_its_share) {
    start({{.mbit = 10, .delay = 10ms}});
    send(client(), 0, 10'000'000, true);
    run_for(1s);
    sim().open_path({.mbit = 80, .delay = 20ms});
    EXPECT_LT(run_until_done(10s), 3s);
    expect_intact();
}

// What a carrier says of datagrams that were never sent, are settled or belong to a lane that is gone changes nothing.
TEST_F(path, strange_news_is_ignored) {
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
