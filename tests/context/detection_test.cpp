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
    detection.update(500, 5);
    detection.update(1000, 5);
    EXPECT_EQ(detection.samples.size(), 4u);
    detection.update(1001, 5);
    EXPECT_EQ(detection.samples.size(), 3u);
    EXPECT_EQ(detection.span, 501);
    EXPECT_EQ(detection.trend, 0);
    detection.update(499, 1);
    EXPECT_EQ(detection.samples.size(), 1u);
    EXPECT_EQ(detection.trend, 0);
    detection.update(100000, 1);
    EXPECT_EQ(detection.samples.size(), 1u);
}

TEST(congestion_detection, keeps_its_trend_over_hours) {
    congestion_detection detection(1000);
    for (long long x = 0; x < 20'000'000; x += 333) {
        detection.update(x, 3 * x);
        if (x > 1000) {
            ASSERT_NEAR(static_cast<double>(detection.trend), 30000.0, 1.0) << x;
        }
    }
}

using tandem::connection_context_t;

TEST_F(linked, samples_the_backlog_for_every_detector) {
    connect();
    for (const int range : {0, -5}) {
        EXPECT_EQ(printed([&] { EXPECT_EQ(probe_->create_congestion_detection(range), nullptr); }),
                  text("[create_congestion_detection:336]Connection Context - Create congestion detection but with "
                       "invalid time "
                       "range (%d <= 0)\n",
                       range));
    }
    const auto first = probe_->create_congestion_detection(100);
    const auto second = probe_->create_congestion_detection(1000);
    connection_->bytes_queued = 500;
    connection_->data_sent = 800;
    connection_context_t::cg_timer_fn(loop_.handle(), nullptr, probe_.get());
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
