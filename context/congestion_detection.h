#ifndef TANDEM_CONTEXT_CONGESTION_DETECTION_H
#define TANDEM_CONTEXT_CONGESTION_DETECTION_H

#include <atomic>
#include <deque>
#include <utility>

#include "common/export.h"

namespace tandem {

// The trend of a connection's send backlog: the slope of a least-squares line through the samples (milliseconds, bytes)
// of a sliding window. A positive trend says that the connection sends slower than the application queues.
//
// Whoever samples must not do so from two threads at once (a context does it under its `cg_mutex`); `trend` and `span`
// may be read from any thread.
class TANDEM_API congestion_detection {
  public:
    // The trend of samples that were all taken at the same time.
    static constexpr long long undefined_trend = 9999999999999999;

    // `range`: the window in milliseconds; 1000 when it is not positive.
    explicit congestion_detection(int range);
    congestion_detection(const congestion_detection&) = delete;
    congestion_detection& operator=(const congestion_detection&) = delete;

    // Forgets all samples; a positive `range` is the new window.
    void reset(int range);
    // Moves the origin of the sums to the oldest sample, so that the squares stay small.
    void adjust_time_base();
    // Adds a sample: `x` in milliseconds, `y` in bytes. Time that runs backwards behind the oldest sample starts
    // afresh.
    void update(long long x, long long y);

    long long time_range = 1000;
    std::deque<std::pair<long long, long long>> samples;
    // Bytes a millisecond times 10000, truncated; 0 with fewer than two samples.
    std::atomic<long long> trend{0};
    // From the oldest sample to the newest, in milliseconds.
    std::atomic<long long> span{0};

  private:
    void start(long long x, long long y);
    void add_to_sums(long long dx, long long y);
    void drop_oldest();
    void update_trend();

    // The sums describe exactly the samples, with times relative to `time_base_`.
    long long time_base_ = 0;
    long long sum_x_ = 0;
    long long sum_y_ = 0;
    long long sum_xx_ = 0;
    long long sum_xy_ = 0;
};

}  // namespace tandem

#endif  // TANDEM_CONTEXT_CONGESTION_DETECTION_H
