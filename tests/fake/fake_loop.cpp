#include <poll.h>

#include <algorithm>
#include <memory>

#include "tests/fake/fake_platform.h"

namespace fake {

struct loop_ops {
    static loop_t* of(st_tloop_t* loop) { return reinterpret_cast<loop_t::base_t*>(loop)->self; }

    static void start(st_tloop_t* loop, void* watcher, bool started) {
        loop_t* self = of(loop);
        const std::lock_guard lock(self->section_);
        if (watcher_t* found = self->find_locked(watcher)) found->started = started;
    }

    static void destroy(st_tloop_t* loop);
    static void run(st_tloop_t* loop) { of(loop)->run(); }
    static void break_loop(st_tloop_t* loop, int) {
        loop_t* self = of(loop);
        const std::lock_guard lock(self->section_);
        self->broken_ = true;
        self->changed_.notify_all();
    }
    static void enter(st_tloop_t* loop) { of(loop)->section_.lock(); }
    static void leave(st_tloop_t* loop) { of(loop)->section_.unlock(); }
    static int in_loop_thread(st_tloop_t* loop) {
        loop_t* self = of(loop);
        const std::lock_guard lock(self->section_);
        return self->thread_ == std::this_thread::get_id();
    }
    static void* io_create(st_tloop_t* loop, tloop_io_cb callback, int fd, int events, void* user) {
        return of(loop)->add({.kind = watcher_t::io, .user = user, .fd = fd, .events = events, .on_io = callback});
    }
    static void* timer_create(st_tloop_t* loop, tloop_timer_cb callback, uint64_t delay, uint64_t period, void* user) {
        return of(loop)->add(
            {.kind = watcher_t::timer, .user = user, .delay = delay, .period = period, .on_timer = callback});
    }
    static void* async_create(st_tloop_t* loop, tloop_async_cb callback, void* user) {
        return of(loop)->add({.kind = watcher_t::async, .user = user, .on_async = callback});
    }
    static void remove(st_tloop_t* loop, void* watcher) { of(loop)->remove(watcher); }
    static void do_start(st_tloop_t* loop, void* watcher) { start(loop, watcher, true); }
    static void do_stop(st_tloop_t* loop, void* watcher) { start(loop, watcher, false); }
    static void async_send(st_tloop_t* loop, void* async) {
        loop_t* self = of(loop);
        const std::lock_guard lock(self->section_);
        if (watcher_t* found = self->find_locked(async)) ++found->sends;
        self->changed_.notify_all();
    }
};

namespace {

std::mutex loops_mutex;
std::condition_variable loops_changed;
std::vector<std::unique_ptr<loop_t>> loops;

const st_tloop_ops_t operations = {
    .slot_0 = nullptr,
    .slot_1 = nullptr,
    .destroy = loop_ops::destroy,
    .slot_3 = nullptr,
    .run = loop_ops::run,
    .break_loop = loop_ops::break_loop,
    .slot_6 = nullptr,
    .enter = loop_ops::enter,
    .leave = loop_ops::leave,
    .in_loop_thread = loop_ops::in_loop_thread,
    .io_create = loop_ops::io_create,
    .io_destroy = loop_ops::remove,
    .io_start = loop_ops::do_start,
    .io_stop = loop_ops::do_stop,
    .timer_create = loop_ops::timer_create,
    .timer_destroy = loop_ops::remove,
    .timer_start = loop_ops::do_start,
    .slot_17 = nullptr,
    .slot_18 = nullptr,
    .async_create = loop_ops::async_create,
    .async_destroy = loop_ops::remove,
    .async_start = loop_ops::do_start,
    .slot_22 = nullptr,
    .async_send = loop_ops::async_send,
};

}  // namespace

void loop_ops::destroy(st_tloop_t* loop) {
    const std::lock_guard lock(loops_mutex);
    std::erase_if(loops, [loop](const auto& made) { return made->handle() == loop; });
    loops_changed.notify_all();
}

void wait_for_made_loops() {
    std::unique_lock lock(loops_mutex);
    loops_changed.wait(lock, [] { return loops.empty(); });
}

// Only for tloop_create, which records the call.
st_tloop_t* add_made_loop() {
    const std::lock_guard lock(loops_mutex);
    loops.push_back(std::make_unique<loop_t>());
    return loops.back()->handle();
}

loop_t* made_loop() {
    const std::lock_guard lock(loops_mutex);
    return loops.empty() ? nullptr : loops.back().get();
}

loop_t::loop_t() : base_{.tloop = {&operations}, .self = this}, thread_(std::this_thread::get_id()) {}

watcher_t* loop_t::find_locked(void* handle) {
    const auto found =
        std::find_if(watchers_.begin(), watchers_.end(), [handle](const watcher_t& w) { return &w == handle; });
    return found != watchers_.end() ? &*found : nullptr;
}

void* loop_t::add(const watcher_t& watcher) {
    const std::lock_guard lock(section_);
    watchers_.push_back(watcher);
    return &watchers_.back();
}

void loop_t::remove(void* watcher) {
    const std::lock_guard lock(section_);
    watchers_.remove_if([watcher](const watcher_t& w) { return &w == watcher; });
}

void loop_t::run() {
    std::unique_lock lock(section_);
    thread_ = std::this_thread::get_id();
    while (!broken_) {
        if (fire_asyncs() == 0) changed_.wait(lock);
    }
    broken_ = false;
}

int loop_t::fire_timers() {
    const std::lock_guard lock(section_);
    int fired = 0;
    // A callback may destroy any watcher: walk over handles, and look each up again.
    std::vector<void*> handles;
    for (watcher_t& watcher : watchers_) {
        handles.push_back(&watcher);
    }
    for (void* handle : handles) {
        const watcher_t* found = find_locked(handle);
        if (found == nullptr || found->kind != watcher_t::timer || !found->started) continue;
        found->on_timer(this->handle(), handle, found->user);
        ++fired;
    }
    return fired;
}

int loop_t::fire_asyncs() {
    const std::lock_guard lock(section_);
    int fired = 0;
    for (;;) {
        const auto found = std::find_if(watchers_.begin(), watchers_.end(),
                                        [](const watcher_t& w) { return w.started && w.sends > 0; });
        if (found == watchers_.end()) return fired;
        found->sends = 0;
        found->on_async(handle(), &*found, found->user);
        ++fired;
    }
}

int loop_t::fire_io(int fd, en_tloop_io_event_t event) {
    const std::lock_guard lock(section_);
    int fired = 0;
    std::vector<void*> handles;
    for (watcher_t& watcher : watchers_) {
        handles.push_back(&watcher);
    }
    for (void* handle : handles) {
        const watcher_t* found = find_locked(handle);
        if (found == nullptr || found->kind != watcher_t::io || !found->started) continue;
        if (found->fd != fd || (found->events & event) == 0) continue;
        found->on_io(this->handle(), handle, fd, found->user, event);
        ++fired;
    }
    return fired;
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
        if ((ready.events & POLLIN) != 0 && (ready.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            fired += fire_io(ready.fd, TLOOP_IO_READ);
        }
        if ((ready.events & POLLOUT) != 0 && (ready.revents & (POLLOUT | POLLHUP | POLLERR)) != 0) {
            fired += fire_io(ready.fd, TLOOP_IO_WRITE);
        }
    }
    return fired;
}

size_t loop_t::count(watcher_t::kind_t kind) const {
    return watchers(kind).size();
}

std::vector<watcher_t> loop_t::watchers(watcher_t::kind_t kind) const {
    const std::lock_guard lock(section_);
    std::vector<watcher_t> found;
    std::copy_if(watchers_.begin(), watchers_.end(), std::back_inserter(found),
                 [kind](const watcher_t& w) { return w.kind == kind; });
    return found;
}

bool loop_t::broken() const {
    const std::lock_guard lock(section_);
    return broken_;
}

}  // namespace fake
