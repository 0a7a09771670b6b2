/* The event loop as this system uses it: a handle whose first word points to a table of operations.
 *
 * Plain C without dependencies. A device with a loop of its own provides the same table; the bundled loop
 * (platform/tloop) implements it over libev.
 *
 * Threads: `async_send`, `break_loop`, `in_loop_thread`, `enter` and `leave` are safe from any thread. Every other
 * operation belongs to the loop's thread, or to a thread between `enter` and `leave`.
 */
#ifndef TANDEM_LINK_TLOOP_H
#define TANDEM_LINK_TLOOP_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define TANDEM_PLATFORM_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

typedef struct st_tloop_t st_tloop_t;

typedef enum { TLOOP_IO_READ = 1, TLOOP_IO_WRITE = 2 } en_tloop_io_event_t;

typedef void (*tloop_io_cb)(st_tloop_t* loop, void* io, int fd, void* user, en_tloop_io_event_t event);
typedef void (*tloop_timer_cb)(st_tloop_t* loop, void* timer, void* user);
typedef void (*tloop_async_cb)(st_tloop_t* loop, void* async, void* user);

/* The mode of `break_loop` that leaves every nested run. */
#define TLOOP_BREAK_ALL 2

/* 24 slots, counted from 0; unused ones are null. */
typedef struct st_tloop_ops_t {
    void* slot_0;
    void* slot_1;
    /* Frees a loop that nobody runs any more. */
    void (*destroy)(st_tloop_t* loop);
    void* slot_3;
    /* Dispatches events on the calling thread until the loop is broken. */
    void (*run)(st_tloop_t* loop);
    /* Makes `run` return. Latched: a break before `run` has started makes that run return at once. Any thread. */
    void (*break_loop)(st_tloop_t* loop, int mode);
    void* slot_6;
    /* Between `enter` and `leave` any thread may create, start, stop and destroy watchers: the loop's callbacks wait
     * meanwhile. Nests. */
    void (*enter)(st_tloop_t* loop);
    void (*leave)(st_tloop_t* loop);
    /* Nonzero on the thread that is running the loop. Any thread. */
    int (*in_loop_thread)(st_tloop_t* loop);
    /* Watches `fd` for `events` (a mask of en_tloop_io_event_t); made stopped. */
    void* (*io_create)(st_tloop_t* loop, tloop_io_cb callback, int fd, int events, void* user);
    void (*io_destroy)(st_tloop_t* loop, void* io);
    void (*io_start)(st_tloop_t* loop, void* io);
    void (*io_stop)(st_tloop_t* loop, void* io);
    /* `delay` and `period` in microseconds. The first expiry comes after `delay`, or after one period when `delay` is
     * 0; then every `period`; a period of 0 fires once. Made unarmed. */
    void* (*timer_create)(st_tloop_t* loop, tloop_timer_cb callback, uint64_t delay, uint64_t period, void* user);
    void (*timer_destroy)(st_tloop_t* loop, void* timer);
    void (*timer_start)(st_tloop_t* loop, void* timer);
    void* slot_17;
    void* slot_18;
    void* (*async_create)(st_tloop_t* loop, tloop_async_cb callback, void* user);
    void (*async_destroy)(st_tloop_t* loop, void* async);
    void (*async_start)(st_tloop_t* loop, void* async);
    void* slot_22;
    /* Wakes the loop so that the callback runs on its thread. Sends that come together may share one call; none is
     * lost. Any thread. */
    void (*async_send)(st_tloop_t* loop, void* async);
} st_tloop_ops_t;

struct st_tloop_t {
    const st_tloop_ops_t* ops;
};

/* Makes a loop. `backend` names the event library ("libev" here; any other name gives null). With `trace`, a callback
 * that holds the loop longer than `stall_us` microseconds is reported on standard error. `flags` is reserved and 0.
 * Free it with ops->destroy. */
TANDEM_PLATFORM_API st_tloop_t* tloop_create(const char* backend, bool trace, uint32_t stall_us, uint32_t flags);

#ifdef __cplusplus
} /* extern "C" */

#define TANDEM_TLOOP_SLOT(name, number) \
    static_assert(offsetof(st_tloop_ops_t, name) == (number) * sizeof(void*), #name " stands at slot " #number)
TANDEM_TLOOP_SLOT(destroy, 2);
TANDEM_TLOOP_SLOT(run, 4);
TANDEM_TLOOP_SLOT(break_loop, 5);
TANDEM_TLOOP_SLOT(enter, 7);
TANDEM_TLOOP_SLOT(leave, 8);
TANDEM_TLOOP_SLOT(in_loop_thread, 9);
TANDEM_TLOOP_SLOT(io_create, 10);
TANDEM_TLOOP_SLOT(io_destroy, 11);
TANDEM_TLOOP_SLOT(io_start, 12);
TANDEM_TLOOP_SLOT(io_stop, 13);
TANDEM_TLOOP_SLOT(timer_create, 14);
TANDEM_TLOOP_SLOT(timer_destroy, 15);
TANDEM_TLOOP_SLOT(timer_start, 16);
TANDEM_TLOOP_SLOT(async_create, 19);
TANDEM_TLOOP_SLOT(async_destroy, 20);
TANDEM_TLOOP_SLOT(async_start, 21);
TANDEM_TLOOP_SLOT(async_send, 23);
#undef TANDEM_TLOOP_SLOT
static_assert(sizeof(st_tloop_ops_t) == 24 * sizeof(void*), "24 slots");
#endif

#endif /* TANDEM_LINK_TLOOP_H */
