#include "bench/crowd/caller.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace bench {
namespace {

using clock = std::chrono::steady_clock;

double seconds_since(clock::time_point start) {
    return std::chrono::duration<double>(clock::now() - start).count();
}

void send_byte(int fd, char byte) {
    if (send(fd, &byte, 1, MSG_NOSIGNAL) != 1) throw std::system_error(errno, std::generic_category(), "send");
}

/* Reads what is there; 0 when that is nothing. An end is a failure here. */
size_t receive(int fd) {
    static std::vector<char> block(64 * 1024);
    const ssize_t got = recv(fd, block.data(), block.size(), 0);
    if (got < 0 && errno == EAGAIN) return 0;
    if (got < 0) throw std::system_error(errno, std::generic_category(), "recv");
    if (got == 0) throw std::runtime_error("a connection was closed by the other end");
    return static_cast<size_t>(got);
}

void check_patience(clock::time_point start, clock::duration patience, unsigned missing) {
    if (clock::now() - start > patience) {
        throw std::runtime_error(std::to_string(missing) + " connections did not answer in time");
    }
}

}  // namespace

caller::~caller() {
    for (const int fd : idle_)
        close(fd);
}

/* The connections in the order of opening, each of which has sent `kind` and got something back. */
std::vector<int> caller::open(poller& events, unsigned count, char kind) {
    const auto start = clock::now();
    std::vector<int> made;
    unsigned under_way = 0;
    while (made.size() < count || under_way > 0) {
        for (; made.size() < count && under_way < at_once; ++under_way) {
            made.push_back(start_connecting(port_));
            events.add(made.back(), EPOLLOUT, made.size() - 1);
        }
        events.wait(1000, [&](uint64_t at, uint32_t ready) {
            if ((ready & EPOLLOUT) != 0) {
                send_byte(made[at], kind);
                events.change(made[at], EPOLLIN, at);
            } else if (receive(made[at]) > 0) {
                events.change(made[at], 0, at);
                --under_way;
            }
        });
        check_patience(start, patience, count - static_cast<unsigned>(made.size()) + under_way);
    }
    return made;
}

double caller::open_idle(unsigned count) {
    const auto start = clock::now();
    poller events;
    const auto made = open(events, count, 'i');
    idle_.insert(idle_.end(), made.begin(), made.end());
    return seconds_since(start);
}

double caller::ping(unsigned count) {
    const auto start = clock::now();
    if (count > idle_.size()) throw std::runtime_error("so many are not open");
    poller events;
    for (unsigned i = 0; i < count; ++i) {
        events.add(idle_[i], EPOLLIN, i);
        send_byte(idle_[i], 'i');
    }
    for (unsigned missing = count; missing > 0;) {
        events.wait(1000, [&](uint64_t at, uint32_t) { missing -= receive(idle_[at]) > 0 ? 1 : 0; });
        check_patience(start, patience, missing);
    }
    return seconds_since(start);
}

caller::downloaded caller::download(unsigned count, double seconds) {
    downloaded result{};
    const auto start = clock::now();
    poller events;
    const auto made = open(events, count, 'b');
    result.started = seconds_since(start);
    for (unsigned i = 0; i < count; ++i)
        events.change(made[i], EPOLLIN, i);
    std::vector<uint64_t> bytes(count);
    const auto measured_from = clock::now();
    while (seconds_since(measured_from) < seconds) {
        events.wait(100, [&](uint64_t at, uint32_t) { bytes[at] += receive(made[at]); });
    }
    const double took = seconds_since(measured_from);
    uint64_t total = 0;
    for (unsigned i = 0; i < count; ++i) {
        total += bytes[i];
        close(made[i]);
    }
    result.mbit = static_cast<double>(total) * 8 / 1e6 / took;
    result.least_kib = static_cast<double>(*std::min_element(bytes.begin(), bytes.end())) / 1024;
    result.most_kib = static_cast<double>(*std::max_element(bytes.begin(), bytes.end())) / 1024;
    return result;
}

}  // namespace bench
