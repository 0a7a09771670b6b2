#include "app/main_loop.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "app/failure.h"

namespace tandem::app {
namespace {

constexpr uint32_t stall_us = 100'000;

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// A worker may wait for a name, and a thousand may live at once. Stacks of 8 MiB, as most systems have them, would then
// be more than the addresses of a 32-bit process.
void limit_stacks() {
#ifdef __GLIBC__
    if constexpr (sizeof(void*) > 4) return;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return;
    pthread_attr_setstacksize(&attributes, size_t{1} << 20);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
#endif
}

}  // namespace

void prepare_process() {
    limit_stacks();
    const sigset_t set = stop_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

main_loop_t::main_loop_t() : loop_(tloop_create("libev", false, stall_us, 0)) {
    if (loop_ == nullptr) throw failure_t("cannot make an event loop; look at the limits of open files and memory");
    const sigset_t set = stop_signals();
    signals_ = file_t(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    signal_io_ =
        signals_ ? loop_->ops->io_create(loop_, &main_loop_t::on_signal, signals_.fd(), TLOOP_IO_READ, this) : nullptr;
    if (signal_io_ == nullptr) {
        loop_->ops->destroy(loop_);
        throw failure_t("cannot watch for signals; look at the limits of open files and memory");
    }
    loop_->ops->io_start(loop_, signal_io_);
}

main_loop_t::~main_loop_t() {
    loop_->ops->io_destroy(loop_, signal_io_);
    loop_->ops->destroy(loop_);
}

void main_loop_t::on_signal(st_tloop_t*, void*, int fd, void* user, en_tloop_io_event_t) {
    signalfd_siginfo info;
    if (read(fd, &info, sizeof(info)) == sizeof(info)) static_cast<main_loop_t*>(user)->stop();
}

}  // namespace tandem::app
