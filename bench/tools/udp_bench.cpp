/* Datagrams through a forward on one machine, and the plainest relay to compare with.
 *
 *   udp_bench flow FROM TO SIZE RATE SECONDS   sends datagrams of SIZE bytes to port TO of 127.0.0.1, RATE a second (0:
 * as fast as it goes), hears them on port FROM; prints the counts sent and heard udp_bench answer PORT sends every
 * datagram back udp_bench query PORT COUNT                 COUNT new sources ask once; prints how many had an answer
 * within 1 s udp_bench relay PORT TO                    carries datagrams to port TO and answers back, a socket a
 * source
 */
#include <arpa/inet.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr int batch = 32;
constexpr size_t longest = 2048;

sockaddr_in local(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int open_socket(uint16_t port, uint16_t to = 0) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int room = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
    const sockaddr_in own = local(port), other = local(to);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0)
        throw std::runtime_error("cannot use UDP port " + std::to_string(port));
    if (to != 0 && connect(fd, reinterpret_cast<const sockaddr*>(&other), sizeof(other)) != 0)
        throw std::runtime_error("cannot connect to UDP port " + std::to_string(to));
    return fd;
}

// Sends and receives many at once, so that this program is not what is measured.
struct batch_t {
    explicit batch_t(size_t size) : bytes(batch * longest) {
        for (size_t i = 0; i < batch; ++i) {
            parts[i] = {bytes.data() + i * longest, size};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }
    std::vector<char> bytes;
    iovec parts[batch] = {};
    mmsghdr messages[batch] = {};
};

void hear(int fd, const std::atomic<bool>& sending, uint64_t& count) {
    batch_t in(longest);
    // What has not come within half a second of the last one is lost.
    for (pollfd ready{fd, POLLIN, 0}; poll(&ready, 1, 500) > 0 || sending;) {
        const int received = recvmmsg(fd, in.messages, batch, MSG_DONTWAIT, nullptr);
        if (received > 0) count += static_cast<uint64_t>(received);
    }
}

void flow(uint16_t from, uint16_t to, size_t size, uint64_t rate, double seconds) {
    const int sink = open_socket(from), source = open_socket(0, to);
    std::atomic<bool> sending{true};
    uint64_t sent = 0, heard = 0;
    std::thread hearer([&] { hear(sink, sending, heard); });
    batch_t out(size);
    const auto start = clock_type::now();
    for (;;) {
        const double past = std::chrono::duration<double>(clock_type::now() - start).count();
        if (past >= seconds) break;
        const auto due = static_cast<uint64_t>(past * static_cast<double>(rate));
        if (rate != 0 && sent >= due) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            continue;
        }
        const auto count = rate == 0 ? batch : static_cast<unsigned>(std::min<uint64_t>(batch, due - sent));
        const int done = sendmmsg(source, out.messages, count, 0);
        if (done > 0) sent += static_cast<uint64_t>(done);
    }
    sending = false;
    hearer.join();
    std::printf("%llu %llu\n", static_cast<unsigned long long>(sent), static_cast<unsigned long long>(heard));
}

[[noreturn]] void answer(uint16_t port) {
    const int fd = open_socket(port);
    for (char bytes[longest];;) {
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t size = recvfrom(fd, bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (size >= 0) sendto(fd, bytes, static_cast<size_t>(size), 0, reinterpret_cast<sockaddr*>(&from), length);
    }
}

int query(uint16_t port, int count) {
    int answered = 0;
    for (int i = 0; i < count; ++i) {
        const int fd = open_socket(0, port);
        pollfd ready{fd, POLLIN, 0};
        if (send(fd, &i, sizeof(i), 0) == sizeof(i) && poll(&ready, 1, 1000) == 1 &&
            recv(fd, &i, sizeof(i), 0) == sizeof(i))
            ++answered;
        close(fd);
    }
    return answered;
}

[[noreturn]] void relay(uint16_t port, uint16_t to) {
    const int front = open_socket(port), events = epoll_create1(EPOLL_CLOEXEC);
    std::map<uint16_t, int> flows;       // source port -> its socket
    std::map<int, sockaddr_in> sources;  // socket -> its source
    const auto watch = [&](int fd) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(events, EPOLL_CTL_ADD, fd, &event);
    };
    watch(front);
    for (char bytes[longest];;) {
        epoll_event event{};
        if (epoll_wait(events, &event, 1, -1) != 1) continue;
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t size =
            recvfrom(event.data.fd, bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0) continue;
        if (event.data.fd != front) {
            const sockaddr_in& back = sources[event.data.fd];
            sendto(front, bytes, static_cast<size_t>(size), 0, reinterpret_cast<const sockaddr*>(&back), sizeof(back));
            continue;
        }
        const auto [entry, added] = flows.try_emplace(from.sin_port, -1);
        if (added) {
            entry->second = open_socket(0, to);
            sources[entry->second] = from;
            watch(entry->second);
        }
        send(entry->second, bytes, static_cast<size_t>(size), 0);
    }
}

uint16_t port_of(std::string_view text) {
    return static_cast<uint16_t>(std::stoul(std::string(text)));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        const std::string mode = words.empty() ? "" : words[0];
        if (mode == "flow" && words.size() == 6) {
            flow(port_of(words[1]), port_of(words[2]), std::min(std::stoul(words[3]), longest), std::stoul(words[4]),
                 std::stod(words[5]));
        } else if (mode == "answer" && words.size() == 2) {
            answer(port_of(words[1]));
        } else if (mode == "query" && words.size() == 3) {
            std::printf("%d\n", query(port_of(words[1]), std::stoi(words[2])));
        } else if (mode == "relay" && words.size() == 3) {
            relay(port_of(words[1]), port_of(words[2]));
        } else {
            throw std::runtime_error(
                "usage: udp_bench flow FROM TO SIZE RATE SECONDS | answer PORT | query PORT COUNT | relay PORT TO");
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "udp_bench: %s\n", error.what());
        return 1;
    }
}
