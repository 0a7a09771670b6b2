/* Links between network namespaces with a rate, a delay, a queue limit, loss and a blackhole switch.
 *
 * Commands come line by line on standard input, each is answered by a line on standard output; commands.h lists them.
 * The end of the input ends the program, and its devices are gone with it. Needs root and /dev/net/tun.
 */
#include <sched.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>
#include <system_error>

#include "bench/rig/commands.h"

namespace {

using rig::nanoseconds;

/* Wake-ups are gathered: a packet is taken, and delivered, up to this much late. On a virtual machine a sleep and the
 * waking of a receiver cost many times what the packet does. */
constexpr nanoseconds grain = std::chrono::microseconds(100);
constexpr size_t longest_line = 4096;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/* The kernel's devices and the rig's reader share the machine with what is measured; late packets would be measured as
 * properties of the peers. */
void be_punctual() {
    const sched_param priority{.sched_priority = 1};
    if (::sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
        std::fputs("rig_link: no real-time priority: packets may be late (see most_late_us in stats)\n", stderr);
    }
    ::prctl(PR_SET_TIMERSLACK, 1UL);
}

/* The next moment at which anything is done. */
nanoseconds after(nanoseconds moment) {
    return (moment + grain - nanoseconds(1)) / grain * grain;
}

void sleep_until(nanoseconds moment) {
    const timespec end{.tv_sec = static_cast<time_t>(moment.count() / 1'000'000'000),
                       .tv_nsec = static_cast<long>(moment.count() % 1'000'000'000)};
    ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
}

class loop {
  public:
    loop();
    loop(const loop&) = delete;
    loop& operator=(const loop&) = delete;
    ~loop() { ::close(epoll_); }

    void run();

  private:
    void watch(int fd, uint64_t key);
    void watch_new_links();
    int wait(std::array<epoll_event, 64>& events);
    void handle(const epoll_event& event);
    bool read_commands();

    int epoll_;
    bool open_ = true;
    rig::links links_;
    size_t watched_ = 0;
    std::string input_;
};

constexpr uint64_t input_key = ~uint64_t{0};

loop::loop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll_ < 0) fail("epoll");
    watch(STDIN_FILENO, input_key);
}

void loop::watch(int fd, uint64_t key) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = key;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll");
}

void loop::watch_new_links() {
    for (; watched_ < links_.all.size(); ++watched_) {
        for (const auto side : {rig::link::near, rig::link::far}) {
            watch(links_.all[watched_].fd(side), 2 * watched_ + side);
        }
    }
}

int loop::wait(std::array<epoll_event, 64>& events) {
    std::optional<nanoseconds> earliest;
    for (rig::link& each : links_.all) {
        for (const auto which : {rig::link::up, rig::link::down}) {
            const auto next = each.towards(which).next_arrival();
            if (next && (!earliest || *next < *earliest)) earliest = next;
        }
    }
    timespec timeout{};
    if (earliest) {
        const nanoseconds left = std::max(after(*earliest) - rig::clock_now(), nanoseconds(0));
        timeout.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000);
        timeout.tv_nsec = static_cast<long>(left.count() % 1'000'000'000);
    }
    const int count =
        ::epoll_pwait2(epoll_, events.data(), static_cast<int>(events.size()), earliest ? &timeout : nullptr, nullptr);
    if (count < 0 && errno != EINTR) fail("epoll");
    return count;
}

void loop::run() {
    std::array<epoll_event, 64> events{};
    while (open_) {
        const int count = wait(events);
        for (int i = 0; i < count; ++i)
            handle(events[static_cast<size_t>(i)]);
        const nanoseconds now = rig::clock_now();
        for (rig::link& each : links_.all)
            each.deliver(now);
        if (count > 0) sleep_until(after(now + nanoseconds(1)));
    }
}

void loop::handle(const epoll_event& event) {
    if (event.data.u64 == input_key) {
        open_ = read_commands();
        watch_new_links();
        return;
    }
    rig::link& from = links_.all[event.data.u64 / 2];
    const auto side = static_cast<rig::link::side>(event.data.u64 % 2);
    from.collect(side);
    // The namespace was deleted, and the device with it.
    if ((event.events & EPOLLERR) != 0) ::epoll_ctl(epoll_, EPOLL_CTL_DEL, from.fd(side), nullptr);
}

/* False at the end of the input. */
bool loop::read_commands() {
    std::array<char, longest_line> block;
    const ssize_t bytes = ::read(STDIN_FILENO, block.data(), block.size());
    if (bytes < 0) return errno == EINTR;
    if (bytes == 0) return false;
    input_.append(block.data(), static_cast<size_t>(bytes));
    for (size_t end = input_.find('\n'); end != std::string::npos; end = input_.find('\n')) {
        const std::string answer = rig::carry_out(links_, std::string_view(input_).substr(0, end));
        input_.erase(0, end + 1);
        if (std::puts(answer.c_str()) < 0 || std::fflush(stdout) != 0) return false;
    }
    if (input_.size() > longest_line) throw std::runtime_error("a command without an end");
    return true;
}

}  // namespace

int main() {
    try {
        std::signal(SIGPIPE, SIG_IGN);
        be_punctual();
        loop().run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rig_link: %s\n", error.what());
        return 1;
    }
}
