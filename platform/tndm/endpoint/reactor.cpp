#include "platform/tndm/endpoint/reactor.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>
#include <utility>

namespace tndm {

core::instant monotonic_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return core::instant(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

io_watcher::io_watcher(st_tloop_t* loop, int fd, std::function<void()> on_readable)
    : loop_(loop),
      on_readable_(std::move(on_readable)),
      handle_(loop->ops->io_create(loop, fired, fd, TLOOP_IO_READ, this)) {
    if (handle_ == nullptr) {
        throw std::system_error(ENOMEM, std::generic_category(), "io watcher");
    }
    loop_->ops->io_start(loop_, handle_);
}

io_watcher::~io_watcher() {
    loop_->ops->io_destroy(loop_, handle_);
}

void io_watcher::fired(st_tloop_t*, void*, int, void* user, en_tloop_io_event_t) {
    // The callback may destroy the watcher: what it runs from must not go with it.
    const auto call = static_cast<io_watcher*>(user)->on_readable_;
    call();
}

wake_timer::wake_timer(st_tloop_t* loop, std::function<void()> on_due)
    : fd_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)), on_due_(std::move(on_due)) {
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "timerfd_create");
    }
    watcher_ = std::make_unique<io_watcher>(loop, fd_, [this] {
        uint64_t expirations = 0;
        if (read(fd_, &expirations, sizeof expirations) == sizeof expirations) {
            armed_ = core::never;
            on_due_();
        }
    });
}

wake_timer::~wake_timer() {
    watcher_.reset();
    close(fd_);
}

void wake_timer::arm(core::instant deadline) {
    if (deadline >= armed_) {
        return;
    }
    armed_ = deadline;
    // A time of zero would disarm the timer.
    const auto due = std::max<core::duration>(deadline.time_since_epoch(), std::chrono::nanoseconds(1));
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(due).count());
    when.it_value.tv_nsec = static_cast<long>((due % std::chrono::seconds(1)).count());
    timerfd_settime(fd_, TFD_TIMER_ABSTIME, &when, nullptr);
}

}  // namespace tndm
