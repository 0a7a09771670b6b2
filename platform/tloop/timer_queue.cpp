#include "platform/tloop/timer_queue.h"

namespace tloop {

void timer_queue::arm(timer_entry& entry, int64_t deadline) {
    disarm(entry);
    entry.deadline = deadline;
    entry.order = next_order_++;
    entry.queued = true;
    armed_.insert(&entry);
}

void timer_queue::disarm(timer_entry& entry) {
    if (!entry.queued) return;
    armed_.erase(&entry);
    entry.queued = false;
}

timer_entry* timer_queue::pop_due(int64_t now, uint64_t mark) {
    if (armed_.empty()) return nullptr;
    timer_entry* first = *armed_.begin();
    if (first->deadline > now || first->order >= mark) return nullptr;
    disarm(*first);
    // Expiries that were missed altogether are left out rather than made up for in a burst.
    const int64_t next = first->deadline + first->period;
    if (first->period > 0) arm(*first, next > now ? next : now + first->period);
    return first;
}

}  // namespace tloop
