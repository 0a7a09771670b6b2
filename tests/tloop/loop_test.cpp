/* One thread: what callbacks may do, timers, breaks. */
#include <algorithm>
#include <set>

#include "loop_fixture.h"

namespace tloop_test {
namespace {

using clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using loop_test = loop_fixture;

void spin(clock::duration time) {
    for (const auto end = clock::now() + time; clock::now() < end;) {
    }
}

TEST_F(loop_test, a_break_before_the_run_ends_that_run_and_no_later_one) {
    break_all();
    run();
    int calls = 0;
    action count = [&] {
        ++calls;
        break_all();
    };
    timer(1, 0, count);
    run();
    EXPECT_EQ(calls, 1);
}

TEST_F(loop_test, a_break_of_all_runs_leaves_the_nested_ones_also_one_that_starts_later) {
    int inner_returned = 0;
    action innermost = [&] { break_all(); };
    action outer = [&] {
        timer(1, 0, innermost);
        run();
        ++inner_returned;
        run();
        ++inner_returned;
    };
    timer(1, 0, outer);
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
    action outer = [&] {
        timer(1, 0, inner);
        run();
        EXPECT_TRUE(in_loop());
        timer(1, 0, last);
    };
    timer(1, 0, outer);
    run();
    EXPECT_TRUE(outer_went_on);
    EXPECT_FALSE(in_loop());
}

TEST_F(loop_test, destroying_what_is_due_takes_its_call_back) {
    stream_pair pairs[3];
    void* ios[3] = {};
    void* asyncs[2] = {};
    void* timers[2] = {};
    int calls[3] = {};
    io_action on_io = [&](en_tloop_io_event_t) {
        ++calls[0];
        for (void* each : ios)
            ops_.io_destroy(loop_, each);
    };
    action on_async = [&] {
        ++calls[1];
        for (void* each : asyncs)
            ops_.async_destroy(loop_, each);
    };
    action on_timer = [&] {
        ++calls[2];
        for (void* each : timers)
            ops_.timer_destroy(loop_, each);
    };
    for (int i = 0; i < 3; ++i) {
        pairs[i].fill();
        ios[i] = io(pairs[i].fd(), TLOOP_IO_READ | TLOOP_IO_WRITE, on_io);
    }
    for (void*& each : asyncs)
        send(each = async(on_async));
    for (void*& each : timers)
        each = timer(1, 1, on_timer);
    spin(1ms);
    action end = [&] { break_all(); };
    timer(1000, 0, end);
    run();
    EXPECT_TRUE(std::all_of(calls, calls + 3, [](int count) { return count == 1; }));
}

TEST_F(loop_test, a_ready_descriptor_calls_back_once_for_each_kind_until_it_is_stopped) {
    stream_pair pair;
    pair.fill();
    std::multiset<int> kinds;
    void* watch = nullptr;
    action end = [&] { break_all(); };
    io_action note = [&](en_tloop_io_event_t kind) {
        kinds.insert(kind);
        if (kinds.size() % 2 != 0) return;
        ops_.io_stop(loop_, watch);
        timer(1000, 0, end);
    };
    watch = io(pair.fd(), TLOOP_IO_READ | TLOOP_IO_WRITE, note);
    run();
    EXPECT_EQ(kinds, (std::multiset<int>{TLOOP_IO_READ, TLOOP_IO_WRITE}));
    ops_.io_start(loop_, watch);
    run();
    EXPECT_EQ(kinds.size(), 4U);
}

TEST_F(loop_test, a_timer_waits_for_its_delay_and_then_for_its_period) {
    const auto start = clock::now();
    int delayed_calls = 0, once_calls = 0, ticks = 0;
    void* once = nullptr;
    action delayed = [&] {  // waiting for the period instead would take an hour
        ++delayed_calls;
        EXPECT_GE(clock::now() - start, 2ms);
    };
    action on_once = [&] {
        if (++once_calls == 1) ops_.timer_start(loop_, once);
    };
    action on_tick = [&] {
        EXPECT_GE(clock::now() - start, 5ms);
        if (++ticks == 20) break_all();
    };
    timer(2000, 3600000000, delayed);
    once = timer(1, 0, on_once);
    timer(0, 5000, on_tick);
    run();
    EXPECT_EQ(delayed_calls, 1);
    EXPECT_EQ(once_calls, 2);
}

TEST_F(loop_test, a_timer_keeps_to_microseconds) {
    // On a busy machine most wake-ups are late, so the quickest of many counts; in whole milliseconds not one would be
    // below 1 ms.
    int left = 200;
    void* next = nullptr;
    clock::time_point started = clock::now();
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
    run();
    EXPECT_LT(quickest, 900us);
}

TEST_F(loop_test, a_wake_up_sent_before_its_start_is_delivered_with_the_start) {
    int calls = 0;
    action count = [&] {
        ++calls;
        break_all();
    };
    void* handle = ops_.async_create(loop_, act, &count);
    send(handle);
    ops_.async_start(loop_, handle);
    run();
    EXPECT_EQ(calls, 1);
}

TEST(loop_trace, reports_a_callback_that_holds_the_loop) {
    EXPECT_EQ(tloop_create("libuv", true, 1000, 0), nullptr);
    EXPECT_EQ(tloop_create(nullptr, true, 1000, 0), nullptr);
    st_tloop_t* loop = tloop_create("libev", true, 1000, 0);
    const auto hold = [](st_tloop_t* self, void*, void*) {
        spin(2ms);
        self->ops->break_loop(self, TLOOP_BREAK_ALL);
    };
    loop->ops->timer_start(loop, loop->ops->timer_create(loop, hold, 1, 0, nullptr));
    testing::internal::CaptureStderr();
    loop->ops->run(loop);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("kind timer held the loop"), std::string::npos);
    loop->ops->destroy(loop); /* with a watcher that nobody destroyed */
}

}  // namespace
}  // namespace tloop_test
