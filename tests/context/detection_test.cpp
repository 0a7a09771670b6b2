#include "tests/context/fixture.h"

namespace {

using tandem::congestion_detection;

TEST(congestion_detection, fits_the_slope_of_its_window) {
    congestion_detection detection(0);
    EXPECT_EQ(detection.time_range, 1000);
    detection.update(0, 0);
    EXPECT_EQ(detection.trend, 0);
    detection.update(10, 100);
    detection.update(20, 200);
    EXPECT_EQ(detection.trend, 100000);
    EXPECT_EQ(detection.span, 20);
    detection.reset(0);
    detection.update(0, 5);
    detection.update(0, 9);
    EXPECT_EQ(detection.trend, congestion_detection::undefined_trend);
    EXPECT_EQ(detection.span, 0);
    // The window slides, and time that runs backwards starts it afresh.
    const struct {
        long long x, y;
        size_t samples;
        long long span;
        bool trendless;
    } steps[] = {{500, 5, 3, 500, false},
                 {1000, 5, 4, 1000, false},
                 {1001, 5, 3, 501, true},
                 {499, 1, 1, 0, true},
                 {100000, 1, 1, 0, true}};
    for (const auto& step : steps) {
        detection.update(step.x, step.y);
        EXPECT_EQ(detection.samples.size(), step.samples) << step.x;
        EXPECT_EQ(detection.span, step.span) << step.x;
        EXPECT_EQ(detection.trend == 0, step.trendless) << step.x;
    }
    for (long long x = 100000; x < 20'000'000; x += 333) {
        detection.update(x, 3 * x);
        ASSERT_TRUE(x < 102000 || std::abs(detection.trend - 30000) <= 1) << x;
    }
}

TEST_F(linked, samples_the_backlog_for_every_detector) {
    connect();
    EXPECT_EQ(probe_->create_congestion_detection(0), nullptr);
    const auto first = probe_->create_congestion_detection(100);
    const auto second = probe_->create_congestion_detection(1000);
    connection_->bytes_queued = 500;
    connection_->data_sent = 800;
    probe_t::cg_timer_fn(loop_.handle(), nullptr, probe_.get());
    EXPECT_EQ(first->samples.back().second, -300);
    probe_->remove_congestion_detection(first);
    probe_->remove_congestion_detection(first);
    probe_->update_cg();
    EXPECT_EQ(first->samples.size(), 1u);
    EXPECT_EQ(second->samples.size(), 2u);
    probe_->force_close();
    EXPECT_EQ(second.use_count(), 1);
}

}  // namespace
