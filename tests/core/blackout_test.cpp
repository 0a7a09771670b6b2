// Paths that go dark and come back, or do not.
#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

class blackout : public bundle_test {
  protected:
    // The client sends for ever, as far as the case is concerned.
    void start_sending(const std::vector<link_settings>& paths, const options& settings) {
        start(paths, settings);
        send(client(), 0, uint64_t{400} << 20);
    }
    static options rate_based(uint64_t seed) { return with_window(90'000, seed); }
};

constexpr link_settings fast{.mbit = 16, .delay = 10ms};
constexpr link_settings slow{.mbit = 8, .delay = 40ms};

// After light the next probe goes out within 100 ms and its answer takes a round trip. After 5 s of darkness the path
// gets a new connection, asked for every 500 ms, whose first round trip comes before its first data. Then the hole at
// the front must be filled: another round trip. 1 s leaves room for the probe to be lost in a full queue once.
TEST_F(blackout, on_the_only_path_is_over_soon_after_light_returns) {
    for (const duration dark : std::initializer_list<duration>{500ms, 1s, 4s, 5s, 15s}) {
        for (const bool probes_tails : {true, false}) {
            for (uint64_t seed = 1; seed <= 3; ++seed) {
                SCOPED_TRACE("dark for " + std::to_string(seconds(dark)) + (probes_tails ? "" : ", no tail probes"));
                options o = seed == 1 ? options{} : rate_based(seed);
                o.carriers.probes_tails = probes_tails;
                start_sending({fast}, o);
                run_for(2s);
                sim().go_dark(0);
                run_for(dark);
                sim().come_back(0);
                const instant light = sim().now();
                run_for(3s);
                EXPECT_LT(first_delivery(server(), light) - light, 1s);
                EXPECT_GT(server().total_received, 5'000'000U);
                EXPECT_EQ(sim().complaint(), "");
            }
        }
    }
}

// The silence timer is max(2 srtt + 4 rttvar, 100 ms); what the dark path owed then goes over the other one, whose
// queue is full of newer data: a loaded round trip, and one more when a piece of it is lost there.
TEST_F(blackout, of_one_path_of_two_stops_the_stream_only_briefly) {
    for (const duration dark : std::initializer_list<duration>{500ms, 1s, 4s, 5s, 15s}) {
        for (const size_t victim : {0U, 1U}) {
            SCOPED_TRACE("path " + std::to_string(victim) + " dark for " + std::to_string(seconds(dark)));
            start_sending({fast, slow}, rate_based(5));
            run_for(2s);
            const duration silence = sim().lane_of(client(), victim)->silence();
            const instant darkness = sim().now();
            sim().go_dark(victim);
            run_for(dark);
            sim().come_back(victim);
            run_for(3s);
            EXPECT_LT(longest_pause(server(), darkness), silence + 400ms);
            EXPECT_FALSE(sim().lane_of(client(), victim)->suspect());
            EXPECT_EQ(sim().complaint(), "");
            const uint64_t before = server().total_received;
            run_for(1s);
            EXPECT_GT(mbit(server().total_received - before, 1s), 18) << "the path does not carry its share again";
        }
    }
}

// Nobody may be kept busy by a path that is gone: an end wakes a few dozen times a second at most.
TEST_F(blackout, does_not_keep_a_driver_spinning) {
    options o;
    o.fresh_carriers = false;
    start({fast}, o);
    send(client(), 0, 10'000'000);
    run_for(500ms);
    sim().go_dark(0);
    run_for(1s);
    uint64_t wakes = 0;
    sim().run_until([&wakes] { return ++wakes > 100'000; }, 60s);
    EXPECT_LT(wakes, 3000U);
    EXPECT_EQ(sim().complaint(), "");
}

}  // namespace
}  // namespace tndm::sim
