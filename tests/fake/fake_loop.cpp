#include <poll.h>

#include <algorithm>

#include "tests/fake/fake_platform.h"

namespace fake {
namespace {

std::mutex loops_mutex;
std::condition_variable loops_changed;
std::vector<std::unique_ptr<loop_t>> loops;

}  // namespace

struct loop_ops {
    static loop_t* of(st_tloop_t* loop) { return static_cast<loop_t*>(loop); }

    static void* add(st_tloop_t* loop, const watcher_t& watcher) {
        return of(loop)->hold([&] { return &of(loop)->watchers_.emplace_back(watcher); });
    }
    static void remove(st_tloop_t* loop, void* handle) {
        of(loop)->hold([&] { of(loop)->watchers_.remove_if([&](const watcher_t& w) { return &w == handle; }); });
    }
    // Changes a watcher, if it still exists, and wakes the loop.
    template <typename change_t>
    static void change(st_tloop_t* loop, void* handle, change_t change_it) {
        of(loop)->hold([&] {
            if (watcher_t* found = of(loop)->find(handle)) change_it(*found);
            of(loop)->changed_.notify_all();
        });
    }
    static void start(st_tloop_t* loop, void* handle) {
        change(loop, handle, [](watcher_t& w) { w.started = true; });
    }
    static void stop(st_tloop_t* loop, void* handle) {
        change(loop, handle, [](watcher_t& w) { w.started = false; });
    }
    static void send(st_tloop_t* loop, void* handle) {
        change(loop, handle, [](watcher_t& w) { w.sent = true; });
    }
    static void* io_create(st_tloop_t* loop, tloop_io_cb callback, int fd, int events, void* user) {
        return add(loop, {.kind = watcher_t::io, .user = user, .fd = fd, .events = events, .on_io = callback});
    }
    static void* timer_create(st_tloop_t* loop, tloop_timer_cb callback, uint64_t delay, uint64_t period, void* user) {
        return add(loop,
                   {.kind = watcher_t::timer, .user = user, .delay = delay, .period = period, .on_timer = callback});
    }
    static void* async_create(st_tloop_t* loop, tloop_async_cb callback, void* user) {
        return add(loop, {.kind = watcher_t::async, .user = user, .on_async = callback});
    }
    static void destroy(st_tloop_t* loop) {
        const std::lock_guard lock(loops_mutex);
        std::erase_if(loops, [loop](const auto& made) { return made->handle() == loop; });
        loops_changed.notify_all();
    }
    static void run(st_tloop_t* loop) {
        loop_t& self = *of(loop);
        std::unique_lock lock(self.section_);
        self.thread_ = std::this_thread::get_id();
        while (!self.broken_) {
            if (self.fire_asyncs() == 0) self.changed_.wait(lock);
        }
        self.broken_ = false;
    }
    static void break_loop(st_tloop_t* loop, int) {
        of(loop)->hold([&] {
            of(loop)->broken_ = true;
            of(loop)->changed_.notify_all();
        });
    }
    static void enter(st_tloop_t* loop) { of(loop)->section_.lock(); }
    static void leave(st_tloop_t* loop) { of(loop)->section_.unlock(); }
    static int in_loop_thread(st_tloop_t* loop) {
        return of(loop)->hold([&] { return of(loop)->thread_ == std::this_thread::get_id(); });
    }

    static constexpr st_tloop_ops_t table() {
        st_tloop_ops_t ops{};
        ops.destroy = destroy;
        ops.run = run;
        ops.break_loop = break_loop;
        ops.enter = enter;
        ops.leave = leave;
        ops.in_loop_thread = in_loop_thread;
        ops.io_create = io_create;
        ops.timer_create = timer_create;
        ops.async_create = async_create;
        ops.io_destroy = ops.timer_destroy = ops.async_destroy = remove;
        ops.io_start = ops.timer_start = ops.async_start = start;
        ops.io_stop = stop;
        ops.async_send = send;
        return ops;
    }
};

namespace {

const st_tloop_ops_t operations = loop_ops::table();

}  // namespace

void wait_for_made_loops() {
    std::unique_lock lock(loops_mutex);
    loops_changed.wait(lock, [] { return loops.empty(); });
}

st_tloop_t* add_made_loop() {
    const std::lock_guard lock(loops_mutex);
    return loops.emplace_back(std::make_unique<loop_t>())->handle();
}

loop_t* made_loop() {
    const std::lock_guard lock(loops_mutex);
    return loops.empty() ? nullptr : loops.back().get();
}

loop_t::loop_t() : st_tloop_t{&operations}, thread_(std::this_thread::get_id()) {}

watcher_t* loop_t::find(void* handle) {
    const auto found = std::find_if(watchers_.begin(), watchers_.end(), [&](const auto& w) { return &w == handle; });
    return found != watchers_.end() ? &*found : nullptr;
}

// A callback may destroy any watcher: walks over handles, and looks each up again.
template <typename match_t, typename call_t>
int loop_t::fire(match_t match, call_t call) {
    const std::lock_guard lock(section_);
    int fired = 0;
    std::vector<watcher_t*> handles;
    for (watcher_t& watcher : watchers_)
        handles.push_back(&watcher);
    for (watcher_t* handle : handles) {
        if (find(handle) == nullptr || !handle->started || !match(*handle)) continue;
        call(*handle);
        ++fired;
    }
    return fired;
}

int loop_t::fire_timers() {
    return fire([](const watcher_t& w) { return w.kind == watcher_t::timer; },
                [this](watcher_t& w) { w.on_timer(this, &w, w.user); });
}

int loop_t::fire_asyncs() {
    int fired = 0;
    for (int more = 1; more > 0; fired += more) {
        more = fire([](const watcher_t& w) { return w.sent; },
                    [this](watcher_t& w) {
                        w.sent = false;
                        w.on_async(this, &w, w.user);
                    });
    }
    return fired;
}

int loop_t::fire_io(int fd, en_tloop_io_event_t event) {
    return fire([&](const watcher_t& w) { return w.kind == watcher_t::io && w.fd == fd && (w.events & event) != 0; },
                [&](watcher_t& w) { w.on_io(this, &w, fd, w.user, event); });
}

int loop_t::poll_io(int timeout_ms) {
    std::vector<pollfd> fds;
    for (const watcher_t& watcher : watchers(watcher_t::io)) {
        if (!watcher.started) continue;
        const int wanted = ((watcher.events & TLOOP_IO_READ) != 0 ? POLLIN : 0) |
                           ((watcher.events & TLOOP_IO_WRITE) != 0 ? POLLOUT : 0);
        fds.push_back({.fd = watcher.fd, .events = static_cast<short>(wanted), .revents = 0});
    }
    if (::poll(fds.data(), fds.size(), timeout_ms) <= 0) return 0;
    int fired = 0;
    for (const pollfd& ready : fds) {
        for (const auto& [sign, event] : {std::pair(POLLIN, TLOOP_IO_READ), {POLLOUT, TLOOP_IO_WRITE}}) {
            if ((ready.events & sign) != 0 && (ready.revents & (sign | POLLHUP | POLLERR)) != 0)
                fired += fire_io(ready.fd, event);
        }
    }
    return fired;
}

std::vector<watcher_t> loop_t::watchers(watcher_t::kind_t kind) const {
    const std::lock_guard lock(section_);
    std::vector<watcher_t> found;
    std::copy_if(watchers_.begin(), watchers_.end(), std::back_inserter(found),
                 [kind](const watcher_t& w) { return w.kind == kind; });
    return found;
}

}  // namespace fake
