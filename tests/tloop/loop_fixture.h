#ifndef TANDEM_TESTS_TLOOP_LOOP_FIXTURE_H
#define TANDEM_TESTS_TLOOP_LOOP_FIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "link/tloop.h"

namespace tloop_test {

/* A socket pair whose first end is readable once `fill` was called. */
class stream_pair {
  public:
    stream_pair() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds_) != 0) std::abort();
    }
    ~stream_pair() {
        close(fds_[0]);
        close(fds_[1]);
    }
    stream_pair(const stream_pair&) = delete;
    stream_pair& operator=(const stream_pair&) = delete;

    int fd() const { return fds_[0]; }
    void fill() const { ASSERT_EQ(write(fds_[1], "x", 1), 1); }

  private:
    int fds_[2];
};

/* A loop, and watchers that are started as they are made: a callback's `user` is a std::function that the test keeps
 * alive. */
class loop_fixture : public ::testing::Test {
  protected:
    using action = std::function<void()>;
    using io_action = std::function<void(en_tloop_io_event_t)>;

    ~loop_fixture() override { loop_->ops->destroy(loop_); }

    void* io(int fd, int events, io_action& call) {
        const auto callback = [](st_tloop_t*, void*, int, void* user, en_tloop_io_event_t kind) {
            (*static_cast<io_action*>(user))(kind);
        };
        void* const made = ops_.io_create(loop_, callback, fd, events, &call);
        ops_.io_start(loop_, made);
        return made;
    }
    void* timer(uint64_t delay, uint64_t period, action& call) {
        void* const made = ops_.timer_create(loop_, act, delay, period, &call);
        ops_.timer_start(loop_, made);
        return made;
    }
    void* async(action& call) {
        void* const made = ops_.async_create(loop_, act, &call);
        ops_.async_start(loop_, made);
        return made;
    }

    void run() { loop_->ops->run(loop_); }
    void break_all() { loop_->ops->break_loop(loop_, TLOOP_BREAK_ALL); }
    void enter() { loop_->ops->enter(loop_); }
    void leave() { loop_->ops->leave(loop_); }
    bool in_loop() { return loop_->ops->in_loop_thread(loop_) != 0; }
    void send(void* handle) { loop_->ops->async_send(loop_, handle); }

    /* Runs the loop on a thread of its own; the end of the scope breaks the loop and waits for the thread. Declare it
     * after what the callbacks use. */
    class runner {
      public:
        explicit runner(loop_fixture& test) : test_(test), thread_([&test] { test.run(); }) {}
        ~runner() {
            test_.break_all();
            thread_.join();
        }
        runner(const runner&) = delete;
        runner& operator=(const runner&) = delete;

      private:
        loop_fixture& test_;
        std::thread thread_;
    };

    static bool comes(std::future<void> event) {
        return event.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    }

    static void act(st_tloop_t*, void*, void* user) { (*static_cast<action*>(user))(); }

    st_tloop_t* const loop_ = tloop_create("libev", false, 0, 0);
    const st_tloop_ops_t& ops_ = *loop_->ops;
};

}  // namespace tloop_test

#endif /* TANDEM_TESTS_TLOOP_LOOP_FIXTURE_H */
