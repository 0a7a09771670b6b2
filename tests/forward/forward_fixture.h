// A forwarding context on the fake platform, bound to a connection and driven by hand.
#ifndef TANDEM_TESTS_FORWARD_FORWARD_FIXTURE_H
#define TANDEM_TESTS_FORWARD_FORWARD_FIXTURE_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "forward/advanced_connection_context.h"
#include "tests/fake/fake_platform.h"
#include "tests/fake/frames.h"

namespace forward_test {

using fake::end_of_stream;
using fake::frame;
using fake::printed;
using fake::request;

using options_t = std::multimap<std::string, std::string>;

// The class with its tables in the open, and hooks that a test gives.
class context_t : public tandem::advanced_connection_context_t {
  public:
    explicit context_t(st_tloop_t* on) : advanced_connection_context_t(on, "", "", "", "") {}
    ~context_t() override { stop_forwarding(); }

    using base = advanced_connection_context_t;
    using base::connection;
    using base::dynamic_connect_thread_task;
    using base::forwards;
    using base::local_instances;
    using base::local_streams;
    using base::max_remote_stream_id;
    using base::pending_remote;
    using base::period_check;
    using base::process_tcp_listen_io_read;
    using base::reap_idle_peers;
    using base::remote_instances;
    using base::remote_streams;
    using base::table_lock;
    using base::tx_start_queue;
    using base::udp_peers;

    int on_create_tcp_connect_socket(uint64_t stream_id, sockaddr_storage* target) override {
        return connect_hook ? connect_hook(stream_id, target) : -1;
    }
    bool set_if_options(const std::string& ifname, options_t& options) override {
        if (options_hook) options_hook(options);
        return base::set_if_options(ifname, options);
    }
    int on_create_vpn_interface(uint64_t, options_t&, std::string& ifname, const std::string& mode) override {
        return vpn_hook ? vpn_hook(ifname, mode) : -1;
    }

    std::function<int(uint64_t, sockaddr_storage*)> connect_hook;
    std::function<int(std::string&, const std::string&)> vpn_hook;
    std::function<void(options_t&)> options_hook;
};

// A descriptor that is closed with its holder.
class fd_t {
  public:
    explicit fd_t(int fd = -1) : fd_(fd) {}
    fd_t(fd_t&& other) noexcept : fd_(other.release()) {}
    fd_t& operator=(fd_t&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~fd_t() { reset(); }
    operator int() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

inline bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The bodies of whole frames, one after the other.
inline std::string bodies(const std::string& stream) {
    std::string out;
    for (size_t at = 0; at < stream.size();) {
        uint64_t length = 0;
        at += static_cast<size_t>(t_varint_decode(reinterpret_cast<const uint8_t*>(stream.data()) + at, 8, &length));
        out += stream.substr(at, length);
        at += length;
    }
    return out;
}

inline fd_t connect_to(unsigned short port, int type = SOCK_STREAM) {
    fd_t fd(socket(AF_INET, type, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) != 0) fd.reset();
    return fd;
}

// Both ends of a connection in this process.
struct socket_pair_t {
    explicit socket_pair_t(int type = SOCK_STREAM) {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_NONBLOCK, 0, fds), 0);
        ours.reset(fds[0]);
        theirs.reset(fds[1]);
    }
    fd_t ours;
    fd_t theirs;
};

class forward_fixture : public testing::Test {
  protected:
    static constexpr uint64_t peer_stream = 101;

    explicit forward_fixture(tandem::delivery_t delivery = tandem::delivery_t::classic) {
        fake::reset();
        auto* instance = fake::make_instance(true);
        connection = fake::connect("test", instance);
        context = std::make_shared<context_t>(loop.handle());
        context->set_delivery(delivery);
        context->reset(instance, connection, loop.handle(), 0, "test");
        push(99, fake::marker);
        fake::clear_calls();
    }
    int remove(int handle) {
        return loop.hold([&] { return context->remove_forward(handle); });
    }
    void push(uint64_t stream_id, const std::string& bytes, bool fin = false) {
        loop.hold([&] {
            context->push_stream_data(stream_id, reinterpret_cast<const uint8_t*>(bytes.data()),
                                      static_cast<uint32_t>(bytes.size()), fin ? 1 : 0);
        });
    }
    // Runs the loop until there is nothing left to do.
    void settle() {
        while (loop.fire_asyncs() + loop.poll_io(0) > 0) {
        }
    }
    // Runs the loop until `done`, at most ten seconds.
    template <typename predicate_t>
    bool settle_until(predicate_t done) {
        for (const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);;) {
            settle();
            if (done()) return true;
            if (std::chrono::steady_clock::now() > limit) return false;
            poll(nullptr, 0, 5);
        }
    }
    // A TCP listener on loopback under a forward.
    int listen_forward(unsigned short& port, bool keep_open = false) {
        port = 0;
        const int fd = context->open_tcp_listen_socket("127.0.0.1", &port);
        EXPECT_EQ(context->add_tcp_forward(fd, "10.0.0.1", 8080, keep_open), fd);
        settle();
        return fd;
    }
    // One accepted connection of a forward: its client, and the instance's stream.
    fd_t accept_client(unsigned short port, uint64_t& stream_id) {
        fd_t client = connect_to(port);
        EXPECT_GE(client, 0);
        stream_id = connection->next_stream;
        EXPECT_TRUE(settle_until([&] { return context->local_streams.contains(stream_id); }));
        return client;
    }
    // A UDP socket on loopback under a forward.
    int udp_forward(unsigned short& port) {
        port = 0;
        const int fd = context->open_udp_socket("127.0.0.1", &port);
        context->add_udp_forward(fd, "10.0.0.1", 53, false);
        settle();
        return fd;
    }
    // A remote instance over one end of a socket pair, opened by the peer's request.
    socket_pair_t open_remote(uint64_t stream_id = peer_stream, const std::string& more = "", bool fin = false) {
        socket_pair_t sockets;
        const int ours = sockets.ours.release();
        context->connect_hook = [ours](uint64_t, sockaddr_storage*) { return ours; };
        push(stream_id, request("TCP", "127.0.0.1", 80) + more, fin);
        EXPECT_TRUE(settle_until([&] { return !context->pending_remote.contains(stream_id); }));
        return sockets;
    }
    static void without_descriptors(const std::function<void()>& action) {
        rlimit before{};
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit none = before;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
        action();
        setrlimit(RLIMIT_NOFILE, &before);
    }
    bool tables_empty() const {
        return context->forwards.empty() && context->local_instances.empty() && context->udp_peers.empty() &&
               context->local_streams.empty() && context->remote_instances.empty() && context->remote_streams.empty() &&
               context->pending_remote.empty();
    }
    static int transmit(int fd, const std::string& bytes) {
        return static_cast<int>(send(fd, bytes.data(), bytes.size(), 0));
    }
    static std::string receive_one(int fd) {
        char buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        return n < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(n));
    }
    // The part of what was sent on a stream behind its first `from` bytes.
    std::string sent(uint64_t stream_id = peer_stream, size_t from = 0) const {
        return fake::sent(connection, stream_id).substr(from);
    }
    bool is_ended(uint64_t stream_id = peer_stream) const { return fake::stream(connection, stream_id).fin; }
    // What a socket has to read just now; behind it "<EOF>" or an error's text, if that is its end.
    static std::string read_all(int fd) {
        std::string out;
        char buffer[65536];
        ssize_t n;
        while ((n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
            out.append(buffer, static_cast<size_t>(n));
        return out + (n == 0 ? "<EOF>" : errno == EAGAIN ? "" : strerror(errno));
    }
    // Reads until as much as `expected` has come, running the loop; whether it is the same.
    bool receives(int fd, const std::string& expected) {
        std::string got;
        settle_until([&] { return (got += read_all(fd)).size() >= expected.size(); });
        return got == expected;
    }

    fake::loop_t loop;
    fake::connection_t* connection = nullptr;
    std::shared_ptr<context_t> context;
};

class lossless_fixture : public forward_fixture {
  protected:
    lossless_fixture() : forward_fixture(tandem::delivery_t::lossless) {}
};

}  // namespace forward_test

#endif  // TANDEM_TESTS_FORWARD_FORWARD_FIXTURE_H
