/* One thread: what callbacks may do, timers, breaks. */
#include <algorithm>
#include <set>

#include "loop_fixture.h"

namespace tloop_test {
namespace {

using clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class loop_test : public loop_fixture {};

TEST_F(loop_test, only_the_bundled_backend_is_known) {
    EXPECT_EQ(tloop_create("libuv", false, 0, 0), nullptr);
    EXPECT_EQ(tloop_create(nullptr, false, 0, 0), nullptr);
}

TEST_F(loop_test, a_break_before_the_run_ends_that_run_and_no_later_one) {
    break_all();
    run();

    int calls = 0;
    action count = [&] {
        ++calls;
        break_all();
    };
    ops_.timer_start(loop_, timer(1, 0, count));
    run();
    EXPECT_EQ(calls, 1);
}

TEST_F(loop_test, a_break_of_all_runs_leaves_the_nested_ones_also_one_that_starts_later) {
    int inner_returned = 0;
    action innermost = [&] { break_all(); };
    void* second = timer(1, 0, innermost);
    action outer = [&] {
        ops_.timer_start(loop_, second);
        run();
        ++inner_returned;
        run();
        ++inner_returned;
    };
    ops_.timer_start(loop_, timer(1, 0, outer));
    run();
    EXPECT_EQ(inner_returned, 2);
}

TEST_F(loop_test, a_break_of_one_run_leaves_the_innermost) {
    bool outer_went_on = false;
    action last = [&] {
        outer_went_on = true;
        break_all();
    };
    action inner = [&] { ops_.break_loop(loop_, 1); };
    void* inner_timer = timer(1, 0, inner);
    void* last_timer = timer(1, 0, last);
    action outer = [&] {
        ops_.timer_start(loop_, inner_timer);
        run();
        EXPECT_TRUE(in_loop());
        ops_.timer_start(loop_, last_timer);
    };
    ops_.timer_start(loop_, timer(1, 0, outer));
    run();
    EXPECT_TRUE(outer_went_on);
    EXPECT_FALSE(in_loop());
}

TEST_F(loop_test, a_ready_descriptor_calls_back_once_for_each_kind) {
    stream_pair pair;
    pair.fill();
    std::multiset<int> kinds;
    io_action note = [&](en_tloop_io_event_t kind) { kinds.insert(kind); };
    action end = [&] { break_all(); };
    void* watch = io(pair.fd(), TLOOP_IO_READ | TLOOP_IO_WRITE, note);
    void* stop_soon = async(end);
    ops_.io_start(loop_, watch);
    ops_.async_start(loop_, stop_soon);
    send(stop_soon);
    run();
    EXPECT_EQ(kinds, (std::multiset<int>{TLOOP_IO_READ, TLOOP_IO_WRITE}));
}

TEST_F(loop_test, destroying_a_watcher_of_two_kinds_in_its_callback_takes_the_other_call_back) {
    stream_pair pair;
    pair.fill();
    int calls = 0;
    void* watch = nullptr;
    io_action destroy_self = [&](en_tloop_io_event_t) {
        ++calls;
        ops_.io_destroy(loop_, watch);
        break_all();
    };
    watch = io(pair.fd(), TLOOP_IO_READ | TLOOP_IO_WRITE, destroy_self);
    ops_.io_start(loop_, watch);
    run();
    EXPECT_EQ(calls, 1);
}

TEST_F(loop_test, of_two_ready_descriptors_the_first_takes_the_call_of_the_second_back) {
    stream_pair pairs[2];
    void* watches[2] = {};
    int calls = 0;
    auto destroy_both = [&](en_tloop_io_event_t) {
        ++calls;
        ops_.io_destroy(loop_, watches[0]);
        ops_.io_destroy(loop_, watches[1]);
        break_all();
    };
    io_action call = destroy_both;
    for (int i = 0; i < 2; ++i) {
        pairs[i].fill();
        watches[i] = io(pairs[i].fd(), TLOOP_IO_READ, call);
        ops_.io_start(loop_, watches[i]);
    }
    run();
    EXPECT_EQ(calls, 1);
}

TEST_F(loop_test, of_two_wake_ups_or_due_timers_the_first_takes_the_call_of_the_second_back) {
    void* asyncs[2] = {};
    void* timers[2] = {};
    int async_calls = 0;
    int timer_calls = 0;
    action on_async = [&] {
        ++async_calls;
        for (void* each : asyncs)
            ops_.async_destroy(loop_, each);
    };
    action on_timer = [&] {
        ++timer_calls;
        for (void* each : timers)
            ops_.timer_destroy(loop_, each);
        break_all();
    };
    for (void*& each : asyncs) {
        each = async(on_async);
        ops_.async_start(loop_, each);
        send(each);
    }
    for (void*& each : timers) {
        each = timer(1, 1, on_timer);
        ops_.timer_start(loop_, each);
    }
    const auto both_due = clock::now() + 1ms;
    while (clock::now() < both_due) {
    }
    run();
    EXPECT_EQ(async_calls, 1);
    EXPECT_EQ(timer_calls, 1);
}

TEST_F(loop_test, a_stopped_descriptor_is_silent_until_it_is_started_again) {
    stream_pair pair;
    pair.fill();
    int calls = 0;
    void* watch = nullptr;
    action end = [&] { break_all(); };
    io_action once = [&](en_tloop_io_event_t) {
        ++calls;
        ops_.io_stop(loop_, watch);
        ops_.timer_start(loop_, timer(1000, 0, end));
    };
    watch = io(pair.fd(), TLOOP_IO_READ, once);
    ops_.io_start(loop_, watch);
    run();
    EXPECT_EQ(calls, 1);
    ops_.io_start(loop_, watch);
    run();
    EXPECT_EQ(calls, 2);
}

TEST_F(loop_test, the_first_expiry_comes_after_the_delay_or_after_one_period) {
    const auto start = clock::now();
    clock::duration with_delay{};
    clock::duration with_period{};
    int delayed_calls = 0;
    void* delayed_timer = nullptr;
    action delayed = [&] {
        // A delay far below the period: waiting for the period instead would take an hour.
        ++delayed_calls;
        with_delay = clock::now() - start;
    };
    action periodic = [&] {
        with_period = clock::now() - start;
        break_all();
    };
    delayed_timer = timer(2000, 3600000000, delayed);
    ops_.timer_start(loop_, delayed_timer);
    ops_.timer_start(loop_, timer(0, 5000, periodic));
    run();
    EXPECT_EQ(delayed_calls, 1);
    EXPECT_GE(with_delay, 2ms);
    EXPECT_GE(with_period, 5ms);
}

TEST_F(loop_test, a_period_repeats_and_without_one_a_timer_fires_once_for_each_start) {
    int once_calls = 0;
    int ticks = 0;
    void* once = nullptr;
    action on_once = [&] {
        if (++once_calls == 1) ops_.timer_start(loop_, once);
    };
    action on_tick = [&] {
        if (++ticks == 20) break_all();
    };
    once = timer(1, 0, on_once);
    ops_.timer_start(loop_, once);
    ops_.timer_start(loop_, timer(0, 500, on_tick));
    run();
    EXPECT_EQ(ticks, 20);
    EXPECT_EQ(once_calls, 2);
}

TEST_F(loop_test, a_timer_keeps_to_microseconds) {
    // On a busy machine most wake-ups are late, so the quickest of many counts; in whole milliseconds not one would be
    // below 1 ms.
    int left = 200;
    void* next = nullptr;
    clock::time_point started;
    clock::duration quickest = 1h;
    action again = [&] {
        const auto now = clock::now();
        EXPECT_GE(now - started, 100us);
        quickest = std::min(quickest, now - started);
        if (--left == 0) return break_all();
        started = clock::now();
        ops_.timer_start(loop_, next);
    };
    next = timer(100, 0, again);
    started = clock::now();
    ops_.timer_start(loop_, next);
    run();
    EXPECT_LT(quickest, 900us);
}

TEST_F(loop_test, a_wake_up_sent_before_its_start_is_delivered_with_the_start) {
    int calls = 0;
    action count = [&] {
        ++calls;
        break_all();
    };
    void* handle = async(count);
    send(handle);
    ops_.async_start(loop_, handle);
    run();
    EXPECT_EQ(calls, 1);
}

TEST(loop_trace, reports_a_callback_that_holds_the_loop) {
    st_tloop_t* loop = tloop_create("libev", true, 1000, 0);
    void* timer = loop->ops->timer_create(
        loop,
        [](st_tloop_t* self, void*, void*) {
            const auto end = clock::now() + 2ms;
            while (clock::now() < end) {
            }
            self->ops->break_loop(self, TLOOP_BREAK_ALL);
        },
        1, 0, nullptr);
    loop->ops->timer_start(loop, timer);
    testing::internal::CaptureStderr();
    loop->ops->run(loop);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("kind timer held the loop"), std::string::npos);
    loop->ops->destroy(loop); /* with a watcher that nobody destroyed */
}

}  // namespace
}  // namespace tloop_test
