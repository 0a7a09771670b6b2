#include "platform/tloop/timer_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace tloop {
namespace {

TEST(timer_queue, equal_deadlines_fire_in_the_order_of_arming) {
    timer_queue queue;
    timer_entry a, b;
    queue.arm(b, 10);
    queue.arm(a, 10);
    EXPECT_EQ(queue.pop_due(9, queue.mark()), nullptr);
    EXPECT_EQ(queue.pop_due(10, queue.mark()), &b);
    EXPECT_EQ(queue.pop_due(10, queue.mark()), &a);
    EXPECT_EQ(queue.next_deadline(), timer_queue::never);
    // What a callback arms waits for the next round.
    queue.arm(a, 10);
    const uint64_t round = queue.mark();
    EXPECT_EQ(queue.pop_due(10, round), &a);
    queue.arm(a, 10);
    EXPECT_EQ(queue.pop_due(10, round), nullptr);
    EXPECT_EQ(queue.pop_due(10, queue.mark()), &a);
}

TEST(timer_queue, a_period_keeps_its_beat_and_leaves_missed_expiries_out) {
    timer_queue queue;
    timer_entry tick;
    tick.period = 10;
    queue.arm(tick, 10);
    EXPECT_EQ(queue.pop_due(13, queue.mark()), &tick);
    EXPECT_EQ(queue.next_deadline(), 20);
    EXPECT_EQ(queue.pop_due(75, queue.mark()), &tick);
    EXPECT_EQ(queue.next_deadline(), 85);
}

TEST(timer_queue, agrees_with_a_plain_list_on_random_operations) {
    std::mt19937 random(7);
    timer_queue queue;
    std::vector<timer_entry> timers(50);
    std::vector<int64_t> model(timers.size(), timer_queue::never);
    int64_t now = 0;
    for (int step = 0; step < 20000; ++step) {
        const size_t i = random() % timers.size();
        switch (random() % 3) {
            case 0:
                model[i] = now + random() % 100;
                queue.arm(timers[i], model[i]);
                break;
            case 1:
                model[i] = timer_queue::never;
                queue.disarm(timers[i]);
                break;
            default:
                now += random() % 20;
                while (timer_entry* due = queue.pop_due(now, queue.mark())) {
                    int64_t& expected = model[static_cast<size_t>(due - timers.data())];
                    ASSERT_EQ(expected, *std::min_element(model.begin(), model.end()));
                    expected = timer_queue::never;
                }
                ASSERT_GT(*std::min_element(model.begin(), model.end()), now);
        }
    }
}

}  // namespace
}  // namespace tloop
