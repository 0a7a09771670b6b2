#include "bench/crowd/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace bench {
namespace {

int check(int result, const char* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int make_socket() {
    return check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
}

}  // namespace

void raise_descriptor_limit() {
    rlimit limit{};
    check(getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    check(setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
}

int start_connecting(uint16_t port) {
    const int fd = make_socket();
    const sockaddr_in address = loopback(port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 && errno != EINPROGRESS) {
        check(-1, "connect");
    }
    return fd;
}

int listen_anywhere(uint16_t& port) {
    const int fd = make_socket();
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    check(bind(fd, reinterpret_cast<const sockaddr*>(&address), length), "bind");
    check(listen(fd, SOMAXCONN), "listen");
    check(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    port = ntohs(address.sin_port);
    return fd;
}

poller::poller() : fd_(check(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {}

poller::~poller() {
    close(fd_);
}

void poller::add(int fd, uint32_t events, uint64_t tag) const {
    epoll_event event{.events = events, .data = {.u64 = tag}};
    check(epoll_ctl(fd_, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

void poller::change(int fd, uint32_t events, uint64_t tag) const {
    epoll_event event{.events = events, .data = {.u64 = tag}};
    check(epoll_ctl(fd_, EPOLL_CTL_MOD, fd, &event), "epoll_ctl");
}

int poller::collect(int milliseconds) {
    const int ready = epoll_wait(fd_, events_, static_cast<int>(std::size(events_)), milliseconds);
    return ready < 0 && errno == EINTR ? 0 : check(ready, "epoll_wait");
}

}  // namespace bench
