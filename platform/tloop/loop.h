#ifndef TANDEM_PLATFORM_TLOOP_LOOP_H
#define TANDEM_PLATFORM_TLOOP_LOOP_H

#include <ev.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <unordered_map>

#include "link/tloop.h"
#include "platform/tloop/loop_lock.h"
#include "platform/tloop/timer_queue.h"

namespace tloop {

class loop_t;

/** What stands behind a watcher's handle. A watcher takes itself out of the loop when it is deleted, together with a
 * call that was due. */
struct watcher {
    loop_t& loop;
    void* const user;

    watcher(loop_t& owner, void* user_data) : loop(owner), user(user_data) {}
    watcher(const watcher&) = delete;
    watcher& operator=(const watcher&) = delete;
    virtual ~watcher() = default;
};

struct io_watcher;
struct timer_watcher;
struct async_watcher;

/** One event loop over one libev loop.
 *
 * A round, on the thread that runs the loop:
 *   1. arm the timer descriptor for the earliest deadline (`before_wait`)
 *   2. give the lock up, wait in epoll, take the lock again
 *   3. call back for descriptors, due timers and wake-ups, with the lock held
 *   4. leave when the loop was broken
 *
 * libev's own timers count in whole milliseconds, which is too coarse to pace packets: deadlines live in `timer_queue`,
 * and one timerfd that libev watches wakes the loop for the first of them.
 *
 * The lock guards libev's state and all members that are not atomic. Each operation takes it (cheap for the thread that
 * has it), so one from a foreign thread can be late but cannot corrupt anything. Another thread that gives the lock
 * back wakes the loop, which then sees changed watchers. Only one thread at a time may run the loop.
 */
class loop_t final : public st_tloop_t {
  public:
    /** Null when the kernel has no descriptors left. */
    static std::unique_ptr<loop_t> create(const st_tloop_ops_t* operations, bool trace, uint32_t stall_us);
    ~loop_t();
    loop_t(const loop_t&) = delete;
    loop_t& operator=(const loop_t&) = delete;

    void run();
    void break_loop(int mode);
    void enter() { lock_.lock(); }
    void leave();
    bool in_loop_thread() const { return runner_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

    watcher* add(std::unique_ptr<watcher> added);
    void destroy(watcher* handle);
    void start(io_watcher& io);
    void stop(io_watcher& io);
    void start(timer_watcher& timer);
    void start(async_watcher& async);
    void send(async_watcher& async);

  private:
    friend struct io_watcher;
    friend struct timer_watcher;
    friend struct async_watcher;

    /* Ordered: the higher one wins when both are asked for. */
    enum breaking : int { break_none = 0, break_one = 1, break_all = 2 };

    loop_t(const st_tloop_ops_t* operations, struct ev_loop* base, int timer_fd, bool trace, uint32_t stall_us);

    static loop_t& of(struct ev_loop* base) { return *static_cast<loop_t*>(ev_userdata(base)); }
    static void on_io(struct ev_loop* base, ev_io* event, int kind);
    static void on_async(struct ev_loop* base, ev_async* event, int);
    static void on_timer_fd(struct ev_loop* base, ev_io*, int);
    static void on_wake(struct ev_loop* base, ev_async*, int);
    static void on_before_wait(struct ev_loop* base, ev_prepare*, int);

    void run_timers();
    void before_wait();
    void break_base(int mode);
    template <class Call>
    void call_back(const char* kind, Call call);

    struct ev_loop* const base_;
    const bool trace_;
    const uint32_t stall_us_;

    loop_lock lock_;
    unsigned suspended_levels_ = 0; /* the loop thread's, while it waits */
    unsigned runs_ = 0;             /* nested runs */
    std::atomic<std::thread::id> runner_{};
    std::atomic<int> breaking_{break_none};

    ev_async wake_{};
    ev_prepare before_wait_{};
    ev_io timer_event_{};
    const int timer_fd_;
    int64_t timer_fd_armed_ = timer_queue::never;
    timer_queue timers_;
    std::unordered_map<watcher*, std::unique_ptr<watcher>> watchers_;
};

struct io_watcher final : watcher {
    /* One libev watcher a kind: libev then calls back once a kind, and stopping takes back what was due. */
    ev_io read{};
    ev_io write{};
    const int events;
    const tloop_io_cb callback;

    io_watcher(loop_t& owner, tloop_io_cb call, int fd, int events_mask, void* user_data);
    ~io_watcher() override;
};

struct timer_watcher final : watcher, timer_entry {
    const int64_t first; /* nanoseconds from the start to the first expiry */
    const tloop_timer_cb callback;

    timer_watcher(loop_t& owner, tloop_timer_cb call, uint64_t delay_us, uint64_t period_us, void* user_data);
    ~timer_watcher() override;
};

struct async_watcher final : watcher {
    ev_async event{};
    std::atomic<bool> sent{false};
    const tloop_async_cb callback;

    async_watcher(loop_t& owner, tloop_async_cb call, void* user_data);
    ~async_watcher() override;
};

}  // namespace tloop

#endif /* TANDEM_PLATFORM_TLOOP_LOOP_H */
