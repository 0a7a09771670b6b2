#include "tests/e2e/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>

#include "tests/e2e/process.h"

namespace tandem::test {
namespace {

constexpr size_t piece = 64 * 1024;
// Bytes that both ends can make for themselves from a seed.
using pattern_t = std::independent_bits_engine<std::mt19937_64, 8, uint64_t>;

// A socket with a time limit returns from a signal even where the handler asked for its call to be restarted
// (signal(7)), and an emulator has signals of its own: what follows starts such calls again.
void set_patience(int fd) {
    const timeval limit{patience.count(), 0};
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

uint16_t port_of(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

}  // namespace

app::file_t listen_tcp(uint16_t& port) {
    app::file_t file(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(0);
    if (bind(file.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(file.fd(), 1024) != 0) {
        throw std::runtime_error(std::string("listen: ") + strerror(errno));
    }
    port = port_of(file.fd());
    return file;
}

app::file_t connect_tcp(uint16_t port) {
    app::file_t file(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    set_patience(file.fd());
    const sockaddr_in address = loopback(port);
    if (connect(file.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error(std::string("connect: ") + strerror(errno));
    }
    return file;
}

bool write_all(int fd, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const ssize_t wrote = TEMP_FAILURE_RETRY(send(fd, bytes, size, MSG_NOSIGNAL));
        if (wrote <= 0) return false;
        bytes += wrote;
        size -= static_cast<size_t>(wrote);
    }
    return true;
}

bool read_all(int fd, void* data, size_t size) {
    auto* bytes = static_cast<uint8_t*>(data);
    while (size > 0) {
        const ssize_t got = TEMP_FAILURE_RETRY(recv(fd, bytes, size, 0));
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

int64_t read_to_end(int fd) {
    std::vector<uint8_t> buffer(piece);
    int64_t total = 0;
    for (;;) {
        const ssize_t got = TEMP_FAILURE_RETRY(recv(fd, buffer.data(), buffer.size(), 0));
        if (got < 0) return -1;
        if (got == 0) return total;
        total += got;
    }
}

uint16_t free_udp_port() {
    const app::file_t file(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    if (bind(file.fd(), reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0)
        throw std::runtime_error("no UDP port");
    return port_of(file.fd());
}

service_t::service_t(handler_t handler)
    : handler_(std::move(handler)), listening_(listen_tcp(port_)), acceptor_([this] { accept_all(); }) {}

service_t::service_t(handler_t handler, app::file_t listening, uint16_t port)
    : handler_(std::move(handler)),
      port_(port),
      listening_(std::move(listening)),
      acceptor_([this] { accept_all(); }) {}

service_t::~service_t() {
    shutdown(listening_.fd(), SHUT_RDWR);
    acceptor_.join();
    for (const app::file_t& file : open_)
        shutdown(file.fd(), SHUT_RDWR);
    for (std::thread& handler : handlers_)
        handler.join();
}

void service_t::accept_all() {
    for (;;) {
        app::file_t file(
            static_cast<int>(TEMP_FAILURE_RETRY(accept4(listening_.fd(), nullptr, nullptr, SOCK_CLOEXEC))));
        if (!file) return;
        set_patience(file.fd());
        // The copy keeps the connection within the destructor's reach; the handler's own descriptor ends with the
        // handler.
        open_.emplace_back(fcntl(file.fd(), F_DUPFD_CLOEXEC, 0));
        handlers_.emplace_back([this, fd = std::move(file)] {
            handler_(fd.fd());
            shutdown(fd.fd(), SHUT_RDWR);
        });
    }
}

void echo(int fd) {
    std::vector<uint8_t> buffer(piece);
    for (;;) {
        const ssize_t got = TEMP_FAILURE_RETRY(recv(fd, buffer.data(), buffer.size(), 0));
        if (got <= 0 || !write_all(fd, buffer.data(), static_cast<size_t>(got))) break;
    }
    shutdown(fd, SHUT_WR);
    read_to_end(fd);
}

std::string exchange(int fd, uint64_t seed, const std::function<uint64_t()>& room,
                     const std::function<void(uint64_t total)>& progress) {
    uint64_t sent = 0, total = 0;
    bool ended = false;
    std::thread sender([&] {
        pattern_t pattern(seed);
        std::vector<uint8_t> out;
        while (const uint64_t bytes = room()) {
            out.resize(std::min<uint64_t>(bytes, piece));
            std::generate(out.begin(), out.end(), [&] { return static_cast<uint8_t>(pattern()); });
            if (!write_all(fd, out.data(), out.size())) return;
            sent += out.size();
        }
        ended = shutdown(fd, SHUT_WR) == 0;
    });
    std::string fault;
    pattern_t pattern(seed);
    std::vector<uint8_t> buffer(piece);
    for (ssize_t got; fault.empty() && (got = TEMP_FAILURE_RETRY(recv(fd, buffer.data(), buffer.size(), 0))) != 0;) {
        if (got < 0) fault = "failed after " + std::to_string(total) + " bytes: " + strerror(errno);
        for (ssize_t i = 0; i < got && fault.empty(); ++i, ++total) {
            if (buffer[static_cast<size_t>(i)] != pattern()) fault = "differs at byte " + std::to_string(total);
        }
        progress(total);
    }
    if (!fault.empty()) shutdown(fd, SHUT_RDWR);
    sender.join();
    if (fault.empty() && (!ended || total != sent))
        fault = "ended after " + std::to_string(total) + " of " + std::to_string(sent) + " bytes";
    return fault;
}

std::string exchange(int fd, uint64_t seed, uint64_t bytes, const std::function<void()>& at_quarter,
                     const std::function<void()>& at_half) {
    const auto room = [left = bytes]() mutable {
        const uint64_t now = std::min<uint64_t>(left, piece);
        left -= now;
        return now;
    };
    uint64_t before = 0;
    return exchange(fd, seed, room, [&](uint64_t total) {
        if (at_quarter && before < bytes / 4 && total >= bytes / 4) at_quarter();
        if (at_half && before < bytes / 2 && total >= bytes / 2) at_half();
        before = total;
    });
}

}  // namespace tandem::test
