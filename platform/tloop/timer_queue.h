#ifndef TANDEM_PLATFORM_TLOOP_TIMER_QUEUE_H
#define TANDEM_PLATFORM_TLOOP_TIMER_QUEUE_H

#include <cstdint>
#include <set>

namespace tloop {

/** One entry of the queue. Times are nanoseconds of one monotonic clock. */
struct timer_entry {
    int64_t period = 0; /* 0: fires once */
    int64_t deadline = 0;
    uint64_t order = 0;
    bool queued = false;
};

/** Armed timers by deadline; equal deadlines fire in the order of arming. Has no clock of its own and no lock; entries
 * are borrowed. */
class timer_queue {
  public:
    /** What `next_deadline` gives when no timer is armed. */
    static constexpr int64_t never = INT64_MAX;

    void arm(timer_entry& entry, int64_t deadline);
    void disarm(timer_entry& entry);
    int64_t next_deadline() const { return armed_.empty() ? never : (*armed_.begin())->deadline; }

    /** A mark for `pop_due`: timers armed later than this do not belong to the round. */
    uint64_t mark() const { return next_order_; }
    /** Takes out the first timer that is due at `now` and was armed before `mark`, and arms a periodic one anew; null
     * when there is none. */
    timer_entry* pop_due(int64_t now, uint64_t mark);

  private:
    struct earlier {
        bool operator()(const timer_entry* a, const timer_entry* b) const {
            return a->deadline != b->deadline ? a->deadline < b->deadline : a->order < b->order;
        }
    };

    std::set<timer_entry*, earlier> armed_;
    uint64_t next_order_ = 0;
};

}  // namespace tloop

#endif /* TANDEM_PLATFORM_TLOOP_TIMER_QUEUE_H */
