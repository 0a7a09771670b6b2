#include "platform/tloop/loop.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

namespace tloop {
namespace {

constexpr int64_t ns_per_us = 1000;
constexpr int64_t ns_per_s = 1000000000;
/* Longer times count as this long (about 31 years), so that deadlines never overflow. */
constexpr uint64_t longest_us = 1000000000000000;

int64_t clock_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * ns_per_s + now.tv_nsec;
}

int64_t to_ns(uint64_t us) {
    return static_cast<int64_t>(std::min(us, longest_us)) * ns_per_us;
}

/* Holds the loop's lock for one operation. */
class entered {
  public:
    explicit entered(loop_t& loop) : loop_(loop) { loop_.enter(); }
    ~entered() { loop_.leave(); }
    entered(const entered&) = delete;
    entered& operator=(const entered&) = delete;

  private:
    loop_t& loop_;
};

}  // namespace

std::unique_ptr<loop_t> loop_t::create(const st_tloop_ops_t* operations, bool trace, uint32_t stall_us) {
    struct ev_loop* base = ev_loop_new(unsigned{EVBACKEND_EPOLL} | unsigned{EVFLAG_NOENV});
    if (base == nullptr) return nullptr;
    const int timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (timer_fd < 0) {
        ev_loop_destroy(base);
        return nullptr;
    }
    return std::unique_ptr<loop_t>(new loop_t(operations, base, timer_fd, trace, stall_us));
}

loop_t::loop_t(const st_tloop_ops_t* operations, struct ev_loop* base, int timer_fd, bool trace, uint32_t stall_us)
    : st_tloop_t{operations}, base_(base), trace_(trace), stall_us_(stall_us), timer_fd_(timer_fd) {
    ev_set_userdata(base_, this);
    ev_set_loop_release_cb(
        base_, [](struct ev_loop* waiting) noexcept { of(waiting).suspended_levels_ = of(waiting).lock_.suspend(); },
        [](struct ev_loop* waiting) noexcept { of(waiting).lock_.resume(of(waiting).suspended_levels_); });
    // The wake-up is always active: libev's wake-up descriptor exists before the first send, and a loop without
    // watchers still waits for its break.
    ev_async_init(&wake_, on_wake);
    ev_async_start(base_, &wake_);
    ev_prepare_init(&before_wait_, on_before_wait);
    ev_prepare_start(base_, &before_wait_);
    ev_io_init(&timer_event_, on_timer_fd, timer_fd_, EV_READ);
    ev_io_start(base_, &timer_event_);
}

loop_t::~loop_t() {
    watchers_.clear();
    ev_io_stop(base_, &timer_event_);
    ev_prepare_stop(base_, &before_wait_);
    ev_async_stop(base_, &wake_);
    ev_loop_destroy(base_);
    close(timer_fd_);
}

void loop_t::run() {
    lock_.lock();
    const std::thread::id outer = runner_.exchange(std::this_thread::get_id());
    ++runs_;
    if (breaking_ == break_none) ev_run(base_, 0);
    --runs_;
    // A break of all runs stays until the outermost one has seen it.
    int consumed = break_one;
    if (runs_ > 0) {
        breaking_.compare_exchange_strong(consumed, break_none);
    } else {
        breaking_ = break_none;
    }
    runner_ = outer;
    lock_.unlock();
}

void loop_t::break_loop(int mode) {
    const int wanted = mode == TLOOP_BREAK_ALL ? break_all : break_one;
    int current = breaking_;
    while (current < wanted && !breaking_.compare_exchange_weak(current, wanted)) {
    }
    if (in_loop_thread()) {
        break_base(wanted);
    } else {
        ev_async_send(base_, &wake_);
    }
}

void loop_t::break_base(int mode) {
    if (mode != break_none) ev_break(base_, mode == break_all ? EVBREAK_ALL : EVBREAK_ONE);
}

void loop_t::leave() {
    // Woken before the lock is free: the thread that takes it next may delete the loop.
    if (lock_.last_level() && !in_loop_thread()) ev_async_send(base_, &wake_);
    lock_.unlock();
}

watcher* loop_t::add(std::unique_ptr<watcher> added) {
    const entered guard(*this);
    watcher* handle = added.get();
    watchers_.emplace(handle, std::move(added));
    return handle;
}

void loop_t::destroy(watcher* handle) {
    const entered guard(*this);
    watchers_.erase(handle);
}

void loop_t::start(io_watcher& io) {
    const entered guard(*this);
    if (io.events & TLOOP_IO_READ) ev_io_start(base_, &io.read);
    if (io.events & TLOOP_IO_WRITE) ev_io_start(base_, &io.write);
}

void loop_t::stop(io_watcher& io) {
    const entered guard(*this);
    ev_io_stop(base_, &io.read);
    ev_io_stop(base_, &io.write);
}

void loop_t::start(timer_watcher& timer) {
    const entered guard(*this);
    timers_.arm(timer, clock_ns() + timer.first);
}

void loop_t::start(async_watcher& async) {
    const entered guard(*this);
    ev_async_start(base_, &async.event);
    // libev forgets what was sent to a stopped watcher.
    if (async.sent.load(std::memory_order_relaxed)) ev_async_send(base_, &async.event);
}

void loop_t::send(async_watcher& async) {
    // The flag orders what the sender wrote before the callback that this send causes.
    async.sent.store(true, std::memory_order_release);
    ev_async_send(base_, &async.event);
}

/* Calls out with the lock held. The call may delete its watcher: nothing of that is touched afterwards. */
template <class Call>
void loop_t::call_back(const char* kind, Call call) {
    if (!trace_) {
        call();
        return;
    }
    const int64_t start = clock_ns();
    call();
    const int64_t held_us = (clock_ns() - start) / ns_per_us;
    if (held_us > stall_us_) {
        std::fprintf(stderr, "tloop: a callback of kind %s held the loop for %lld us\n", kind,
                     static_cast<long long>(held_us));
    }
}

void loop_t::on_io(struct ev_loop* base, ev_io* event, int) {
    auto& io = *static_cast<io_watcher*>(event->data);
    const auto kind = event == &io.read ? TLOOP_IO_READ : TLOOP_IO_WRITE;
    of(base).call_back(
        "io", [&io, kind, fd = event->fd] { io.callback(&io.loop, static_cast<watcher*>(&io), fd, io.user, kind); });
}

void loop_t::on_async(struct ev_loop* base, ev_async* event, int) {
    auto& async = *static_cast<async_watcher*>(event->data);
    async.sent.exchange(false, std::memory_order_acquire);
    of(base).call_back("async", [&async] { async.callback(&async.loop, static_cast<watcher*>(&async), async.user); });
}

void loop_t::on_wake(struct ev_loop* base, ev_async*, int) {
    of(base).break_base(of(base).breaking_);
}

void loop_t::on_timer_fd(struct ev_loop* base, ev_io*, int) {
    loop_t& self = of(base);
    uint64_t expirations = 0;
    // Fails when a nested run has armed the descriptor anew since: then it is still armed.
    if (read(self.timer_fd_, &expirations, sizeof expirations) > 0) self.timer_fd_armed_ = timer_queue::never;
    self.run_timers();
}

void loop_t::run_timers() {
    const int64_t now = clock_ns();
    const uint64_t round = timers_.mark();
    while (timer_entry* due = timers_.pop_due(now, round)) {
        auto& timer = *static_cast<timer_watcher*>(due);
        call_back("timer", [&timer] { timer.callback(&timer.loop, static_cast<watcher*>(&timer), timer.user); });
    }
}

void loop_t::on_before_wait(struct ev_loop* base, ev_prepare*, int) {
    of(base).before_wait();
}

void loop_t::before_wait() {
    // A deadline that moved back leaves the descriptor as it is: one early wake-up is cheaper than a system call a
    // round.
    const int64_t next = timers_.next_deadline();
    if (next >= timer_fd_armed_) return;
    itimerspec at{};
    at.it_value.tv_sec = static_cast<time_t>(next / ns_per_s);
    at.it_value.tv_nsec = static_cast<long>(next % ns_per_s);
    if (timerfd_settime(timer_fd_, TFD_TIMER_ABSTIME, &at, nullptr) == 0) timer_fd_armed_ = next;
}

io_watcher::io_watcher(loop_t& owner, tloop_io_cb call, int fd, int events_mask, void* user_data)
    : watcher(owner, user_data), events(events_mask), callback(call) {
    ev_io_init(&read, loop_t::on_io, fd, EV_READ);
    ev_io_init(&write, loop_t::on_io, fd, EV_WRITE);
    read.data = this;
    write.data = this;
}

io_watcher::~io_watcher() {
    loop.stop(*this);
}

timer_watcher::timer_watcher(loop_t& owner, tloop_timer_cb call, uint64_t delay_us, uint64_t period_us, void* user_data)
    : watcher(owner, user_data), first(to_ns(delay_us > 0 ? delay_us : period_us)), callback(call) {
    period = to_ns(period_us);
}

timer_watcher::~timer_watcher() {
    loop.timers_.disarm(*this);
}

async_watcher::async_watcher(loop_t& owner, tloop_async_cb call, void* user_data)
    : watcher(owner, user_data), callback(call) {
    ev_async_init(&event, loop_t::on_async);
    event.data = this;
}

async_watcher::~async_watcher() {
    ev_async_stop(loop.base_, &event);
}

}  // namespace tloop
