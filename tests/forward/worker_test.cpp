// Workers: what they open, and that they outlive nothing.
#include <netdb.h>

#include <future>

#include "tests/forward/forward_fixture.h"

namespace {

// A name whose resolution takes until the test allows it.
std::promise<void>* resolving = nullptr;
std::shared_future<void>* resolve_now = nullptr;

}  // namespace

// Takes the C library's place in this program.
extern "C" int getaddrinfo(const char* host, const char*, const addrinfo*, addrinfo**) {
    if (std::string(host) == "slow.test" && resolve_now) {
        resolving->set_value();
        resolve_now->wait();
    }
    return EAI_NONAME;
}

namespace forward_test {
namespace {

using workers = forward_fixture;
using detail = tandem::advanced_connection_context_t;

struct slow_name_t {
    slow_name_t() {
        resolving = &entered;
        resolve_now = &wait_for;
    }
    ~slow_name_t() { resolving = nullptr; }
    std::promise<void> entered;
    std::promise<void> go;
    std::shared_future<void> wait_for = go.get_future().share();
};

TEST_F(workers, the_library_connects_where_the_hook_declines) {
    unsigned short port = 0;
    const fd_t listener(context->open_tcp_listen_socket("127.0.0.1", &port));
    push(peer_stream, request("TCP", "127.0.0.1", port) + frame("early"));
    ASSERT_TRUE(settle_until([&] { return context->remote_instances.size() == 1; }));
    const fd_t accepted(accept(listener, nullptr, nullptr));
    ASSERT_GE(accepted, 0);
    std::string got;
    ASSERT_TRUE(settle_until([&] { return (got += read_all(accepted)) == "early"; }));
}

TEST_F(workers, a_target_that_fails_ends_the_stream) {
    push(peer_stream, request("TCP", "no.such.name", 80));
    EXPECT_TRUE(settle_until([&] { return tables_empty(); }));
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);

    unsigned short port = 0;
    fd_t(context->open_tcp_listen_socket("127.0.0.1", &port)).reset();
    push(peer_stream + 4, request("TCP", "127.0.0.1", port));
    EXPECT_TRUE(settle_until([&] { return tables_empty(); }));
    EXPECT_TRUE(fake::stream(connection, peer_stream + 4).fin);
}

TEST_F(workers, a_result_that_nobody_wants_any_more_is_closed) {
    socket_pair_t sockets;
    std::promise<void> entered, go;
    const int given = sockets.ours.release();
    context->connect_hook = [&](uint64_t, sockaddr_storage*) {
        entered.set_value();
        go.get_future().wait();
        return given;
    };
    push(peer_stream, request("TCP", "127.0.0.1", 80));
    const auto inst = context->remote_streams.at(peer_stream);
    entered.get_future().wait();
    push(peer_stream, std::string(1, '\0'), true);
    settle();
    EXPECT_TRUE(tables_empty());
    go.set_value();
    pollfd closed{.fd = sockets.theirs, .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&closed, 1, 10000), 1);
    EXPECT_EQ(inst->state, detail::STATE_CLOSED);
    EXPECT_EQ(inst->fd, -1);
}

TEST_F(workers, destruction_does_not_wait_for_a_name) {
    slow_name_t name;
    push(peer_stream, request("TCP", "slow.test", 80));
    name.entered.get_future().wait();
    const std::weak_ptr<detail::forward_detail> record = context->remote_streams.at(peer_stream);
    context->on_destroy();
    context.reset();
    EXPECT_FALSE(record.expired());
    // The worker returns to a context that is gone, and drops the last reference to its record.
    name.go.set_value();
    for (int i = 0; i < 1000 && !record.expired(); ++i) {
        poll(nullptr, 0, 10);
    }
    EXPECT_TRUE(record.expired());
}

TEST_F(workers, destruction_waits_for_a_hook_that_runs) {
    std::promise<void> entered, go;
    std::atomic<bool> left{false};
    context->connect_hook = [&](uint64_t, sockaddr_storage*) {
        entered.set_value();
        go.get_future().wait();
        left = true;
        return -1;
    };
    push(peer_stream, request("TCP", "127.0.0.1", 1));
    entered.get_future().wait();
    auto destroyed = std::async(std::launch::async, [&] {
        context.reset();
        return left.load();
    });
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    go.set_value();
    EXPECT_TRUE(destroyed.get());
}

TEST_F(workers, a_vpn_target_is_made_with_its_options) {
    socket_pair_t tun(SOCK_DGRAM);
    const int given = tun.ours.release();
    std::string mode_seen;
    std::multimap<std::string, std::string> options_seen;
    context->vpn_hook = [&](std::string& ifname, const std::string& mode) {
        EXPECT_EQ(ifname, "want0");
        ifname = "got0";
        mode_seen = mode;
        return given;
    };
    context->options_hook = [&](auto& options) { options_seen = options; };
    push(peer_stream, request("VPN", "ifname:want0;mode:TAP;up:%ifname% and %ifname%", 0));
    ASSERT_TRUE(settle_until([&] { return context->remote_instances.contains(given); }));
    EXPECT_EQ(mode_seen, "tun");
    EXPECT_EQ(options_seen, (std::multimap<std::string, std::string>{{"up", "got0 and got0"}}));
}

TEST_F(workers, datagrams_wait_for_their_socket) {
    unsigned short port = 0;
    const fd_t target(context->open_udp_socket("127.0.0.1", &port));
    push(peer_stream, request("UDP", "127.0.0.1", port) + frame("first") + frame("second"));
    ASSERT_TRUE(settle_until([&] { return context->remote_instances.size() == 1; }));
    char buffer[100];
    EXPECT_EQ(recv(target, buffer, sizeof(buffer), 0), 5);
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    EXPECT_EQ(recvfrom(target, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &length), 6);
    EXPECT_EQ(sendto(target, "back", 4, 0, reinterpret_cast<sockaddr*>(&from), length), 4);
    EXPECT_TRUE(settle_until([&] {
        return fake::sent(connection, peer_stream) ==
               "\x04"
               "back";
    }));
}

}  // namespace
}  // namespace forward_test
