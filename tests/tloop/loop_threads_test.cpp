/* Several threads: breaks, enter and leave, wake-ups. */
#include <atomic>
#include <vector>

#include "loop_fixture.h"

namespace tloop_test {
namespace {

class loop_threads : public loop_fixture {
  protected:
    /* Returns once the loop's thread has been round. */
    void wait_for_a_round() {
        std::promise<void> round;
        action arrived = [&] { round.set_value(); };
        void* handle = async(arrived);
        send(handle);
        ASSERT_TRUE(comes(round.get_future()));
        ops_.async_destroy(loop_, handle);
    }
};

TEST_F(loop_threads, a_break_from_another_thread_is_never_lost) {
    // The break falls before, into and after the start of the run.
    for (int i = 0; i < 300; ++i) {
        const runner running(*this);
        if (i % 3 == 0) wait_for_a_round();
    }
}

TEST_F(loop_threads, watchers_made_by_another_thread_work_and_fall_silent_when_destroyed) {
    stream_pair pair;
    pair.fill();
    const runner running(*this);
    for (int i = 0; i < 200; ++i) {
        std::promise<void> first_io;
        std::promise<void> first_timer;
        // Plain variables: the loop's lock alone keeps this thread and the callbacks apart.
        int io_calls = 0;
        int timer_calls = 0;
        io_action on_io = [&](en_tloop_io_event_t) {
            if (++io_calls == 1) first_io.set_value();
        };
        action on_timer = [&] {
            if (++timer_calls == 1) first_timer.set_value();
        };
        enter();
        enter();
        void* watch = io(pair.fd(), TLOOP_IO_READ, on_io);
        void* tick = timer(0, 20, on_timer);
        leave();
        EXPECT_FALSE(in_loop());
        EXPECT_EQ(io_calls + timer_calls, 0);
        leave();
        ASSERT_TRUE(comes(first_io.get_future()));
        ASSERT_TRUE(comes(first_timer.get_future()));
        enter();
        ops_.io_destroy(loop_, watch);
        ops_.timer_destroy(loop_, tick);
        leave();
        const int io_before = io_calls;
        const int timer_before = timer_calls;
        if (i % 20 == 0) wait_for_a_round();
        EXPECT_EQ(io_calls, io_before);
        EXPECT_EQ(timer_calls, timer_before);
    }
}

TEST_F(loop_threads, a_timer_started_by_another_thread_counts_from_its_start) {
    using clock = std::chrono::steady_clock;
    std::promise<clock::time_point> fired;
    action note = [&] { fired.set_value(clock::now()); };
    const runner running(*this);
    wait_for_a_round();
    const auto idle_until = clock::now() + std::chrono::milliseconds(20);
    while (clock::now() < idle_until) {
    }
    enter();
    const auto start = clock::now();
    timer(10000, 0, note);
    leave();
    EXPECT_GE(fired.get_future().get() - start, std::chrono::milliseconds(10));
}

TEST_F(loop_threads, a_busy_loop_lets_others_in) {
    int rounds = 0;
    void* handle = nullptr;
    action again = [&] {
        ++rounds;
        send(handle);
    };
    handle = async(again);
    send(handle);
    const runner running(*this);
    std::vector<std::thread> guests;
    int visits = 0;
    for (int guest = 0; guest < 3; ++guest) {
        guests.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                enter();
                ++visits;
                const int before = rounds;
                std::this_thread::yield();
                EXPECT_EQ(rounds, before);
                leave();
            }
        });
    }
    for (auto& guest : guests)
        guest.join();
    enter();
    EXPECT_EQ(visits, 1500);
    leave();
}

TEST_F(loop_threads, no_wake_up_of_four_senders_is_lost) {
    constexpr int senders = 4;
    constexpr int sends = 20000;
    std::atomic<int> produced{0};
    int consumed = 0;
    std::promise<void> all;
    action consume = [&] {
        const int taken = produced.exchange(0, std::memory_order_relaxed);
        if (taken > 0 && (consumed += taken) == senders * sends) all.set_value();
    };
    void* handle = async(consume);
    const runner running(*this);
    std::vector<std::thread> threads;
    for (int i = 0; i < senders; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < sends; ++n) {
                produced.fetch_add(1, std::memory_order_relaxed);
                send(handle);
            }
        });
    }
    // Meanwhile another thread changes the set of watchers.
    for (int i = 0; i < 200; ++i) {
        action nothing = [] {};
        enter();
        void* other = async(nothing);
        ops_.async_destroy(loop_, other);
        leave();
    }
    for (auto& each : threads)
        each.join();
    EXPECT_TRUE(comes(all.get_future()));
}

}  // namespace
}  // namespace tloop_test
