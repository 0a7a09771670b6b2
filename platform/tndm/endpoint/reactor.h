// The loop as the transport uses it: watched descriptors, one fine timer, one wake-up, and the time.
//
// All of it belongs to the loop's thread (or to a thread between the loop's enter and leave).
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_REACTOR_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_REACTOR_H

#include <functional>
#include <memory>

#include "link/tloop.h"
#include "platform/tndm/core/time.h"

namespace tndm {

// CLOCK_MONOTONIC; any thread.
core::instant monotonic_now();

// Calls back while a descriptor is readable. The descriptor stays the caller's and must outlive the watcher.
class io_watcher {
  public:
    io_watcher(st_tloop_t* loop, int fd, std::function<void()> on_readable);
    ~io_watcher();
    io_watcher(const io_watcher&) = delete;
    io_watcher& operator=(const io_watcher&) = delete;

  private:
    static void fired(st_tloop_t*, void*, int, void* user, en_tloop_io_event_t);

    st_tloop_t* loop_;
    std::function<void()> on_readable_;
    void* handle_;
};

// One deadline with the precision of the kernel's timers: pacing needs much less than the loop's millisecond.
class wake_timer {
  public:
    // Throws std::system_error when the kernel gives no timer.
    wake_timer(st_tloop_t* loop, std::function<void()> on_due);
    ~wake_timer();
    wake_timer(const wake_timer&) = delete;
    wake_timer& operator=(const wake_timer&) = delete;

    // Calls back at `deadline` or earlier (a deadline that moves away is not worth a system call); `never` is allowed.
    void arm(core::instant deadline);

  private:
    int fd_;
    core::instant armed_ = core::never;
    std::function<void()> on_due_;
    std::unique_ptr<io_watcher> watcher_;
};

}  // namespace tndm

#endif
