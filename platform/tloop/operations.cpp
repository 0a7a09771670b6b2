/* The C table of operations over loop_t. */
#include <cstring>

#include "platform/tloop/loop.h"

namespace tloop {
namespace {

loop_t& of(st_tloop_t* loop) {
    return *static_cast<loop_t*>(loop);
}

template <class Watcher>
Watcher& as(void* handle) {
    return *static_cast<Watcher*>(static_cast<watcher*>(handle));
}

void* io_create(st_tloop_t* loop, tloop_io_cb callback, int fd, int events, void* user) {
    if (callback == nullptr || fd < 0) return nullptr;
    return of(loop).add(std::make_unique<io_watcher>(of(loop), callback, fd, events, user));
}

void* timer_create(st_tloop_t* loop, tloop_timer_cb callback, uint64_t delay, uint64_t period, void* user) {
    if (callback == nullptr) return nullptr;
    return of(loop).add(std::make_unique<timer_watcher>(of(loop), callback, delay, period, user));
}

void* async_create(st_tloop_t* loop, tloop_async_cb callback, void* user) {
    if (callback == nullptr) return nullptr;
    return of(loop).add(std::make_unique<async_watcher>(of(loop), callback, user));
}

void destroy_watcher(st_tloop_t* loop, void* handle) {
    of(loop).destroy(static_cast<watcher*>(handle));
}

constexpr st_tloop_ops_t operations = {
    .slot_0 = nullptr,
    .slot_1 = nullptr,
    .destroy = [](st_tloop_t* loop) { delete &of(loop); },
    .slot_3 = nullptr,
    .run = [](st_tloop_t* loop) { of(loop).run(); },
    .break_loop = [](st_tloop_t* loop, int mode) { of(loop).break_loop(mode); },
    .slot_6 = nullptr,
    .enter = [](st_tloop_t* loop) { of(loop).enter(); },
    .leave = [](st_tloop_t* loop) { of(loop).leave(); },
    .in_loop_thread = [](st_tloop_t* loop) -> int { return of(loop).in_loop_thread() ? 1 : 0; },
    .io_create = io_create,
    .io_destroy = destroy_watcher,
    .io_start = [](st_tloop_t* loop, void* io) { of(loop).start(as<io_watcher>(io)); },
    .io_stop = [](st_tloop_t* loop, void* io) { of(loop).stop(as<io_watcher>(io)); },
    .timer_create = timer_create,
    .timer_destroy = destroy_watcher,
    .timer_start = [](st_tloop_t* loop, void* timer) { of(loop).start(as<timer_watcher>(timer)); },
    .slot_17 = nullptr,
    .slot_18 = nullptr,
    .async_create = async_create,
    .async_destroy = destroy_watcher,
    .async_start = [](st_tloop_t* loop, void* async) { of(loop).start(as<async_watcher>(async)); },
    .slot_22 = nullptr,
    .async_send = [](st_tloop_t* loop, void* async) { of(loop).send(as<async_watcher>(async)); },
};

}  // namespace
}  // namespace tloop

st_tloop_t* tloop_create(const char* backend, bool trace, uint32_t stall_us, uint32_t /*flags*/) {
    if (backend == nullptr || std::strcmp(backend, "libev") != 0) return nullptr;
    return tloop::loop_t::create(&tloop::operations, trace, stall_us).release();
}
