#include "context/congestion_detection.h"

namespace tandem {

namespace {

// Milliseconds (about 2.3 hours) after which the sums get a new origin, so that a window's squares stay far below 64
// bits.
constexpr long long rebase_after = 1LL << 23;
constexpr double flat = 1e-6f;

}  // namespace

congestion_detection::congestion_detection(int range) {
    reset(range);
}

void congestion_detection::reset(int range) {
    samples.clear();
    if (range > 0) time_range = range;
    sum_x_ = sum_y_ = sum_xx_ = sum_xy_ = 0;
    trend = 0;
    span = 0;
}

void congestion_detection::adjust_time_base() {
    if (samples.empty()) return;
    time_base_ = samples.front().first;
    sum_x_ = sum_y_ = sum_xx_ = sum_xy_ = 0;
    for (const auto& [x, y] : samples) {
        add_to_sums(x - time_base_, y);
    }
}

void congestion_detection::add_to_sums(long long dx, long long y) {
    sum_x_ += dx;
    sum_y_ += y;
    sum_xx_ += dx * dx;
    sum_xy_ += dx * y;
}

void congestion_detection::drop_oldest() {
    const auto [x, y] = samples.front();
    const long long dx = x - time_base_;
    sum_x_ -= dx;
    sum_y_ -= y;
    sum_xx_ -= dx * dx;
    sum_xy_ -= dx * y;
    samples.pop_front();
}

void congestion_detection::start(long long x, long long y) {
    reset(0);
    time_base_ = x;
    sum_y_ = y;
    samples.emplace_back(x, y);
}

void congestion_detection::update(long long x, long long y) {
    if (samples.empty() || x < samples.front().first) return start(x, y);
    if (x - time_base_ >= rebase_after) adjust_time_base();
    while (!samples.empty() && x - samples.front().first > time_range) {
        drop_oldest();
    }
    if (samples.empty()) return start(x, y);
    span = x - samples.front().first;
    add_to_sums(x - time_base_, y);
    samples.emplace_back(x, y);
    update_trend();
}

void congestion_detection::update_trend() {
    const auto n = static_cast<double>(samples.size());
    const double mean_x = static_cast<double>(sum_x_) / n;
    const double s = n * mean_x;
    const double denominator = static_cast<double>(sum_xx_) - s * mean_x;
    if (denominator < flat && denominator > -flat) {
        trend = undefined_trend;
        return;
    }
    const double numerator = static_cast<double>(sum_xy_) - static_cast<double>(sum_y_) / n * s;
    trend = static_cast<long long>(numerator / denominator * 10000.0);
}

}  // namespace tandem
