// Paths that are added and removed while they carry data, and what late news of them may do.
#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

using path = bundle_test;

TEST_F(path, that_comes_or_goes_while_it_carries_costs_little) {
    const link_settings near{.mbit = 50, .delay = 10ms};
    const link_settings far{.mbit = 20, .delay = 40ms};
    const struct {
        const char* what;
        std::vector<link_settings> paths;
        std::function<void()> change;
        duration limit, longest_pause;
    } rows[] = {
        {"what a path that goes owes is the others'", {near, far}, [&] { sim().remove_path(0); }, 9s, 500ms},
        {"what the last one owes is left to the next one",
         {near},
         [&] {
             sim().remove_path(0);
             EXPECT_EQ(client().bundle.lane_count(), 0U);
             run_for(5s);
             send(client(), 4, 1000, true);
             sim().open_path(far);
         },
         9s,
         6s},
        {"one that comes takes its share", {far}, [&] { sim().open_path({.mbit = 80, .delay = 20ms}); }, 3s, 500ms},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        start(row.paths);
        send(client(), 0, 10'000'000, true);
        send(server(), 1, 10'000'000, true);
        run_for(700ms);
        const instant changed = sim().now();
        row.change();
        EXPECT_LT(run_until_done(20s), row.limit);
        expect_intact();
        EXPECT_LT(longest_pause(server(), changed), row.longest_pause);
    }
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
