// Workers: what they open, and that they outlive nothing.
#include <netdb.h>

#include <future>

#include "tests/forward/forward_fixture.h"

namespace {

// A name whose resolution takes until the test allows it.
struct slow_name_t {
    std::promise<void> entered, go;
};
slow_name_t* slow_name = nullptr;

}  // namespace

// Takes the C library's place in this program.
extern "C" int getaddrinfo(const char* host, const char*, const addrinfo*, addrinfo**) {
    if (std::string(host) == "slow.test") {
        auto go = slow_name->go.get_future();
        slow_name->entered.set_value();
        go.wait();
    }
    return EAI_NONAME;
}

namespace forward_test {
namespace {

using workers = forward_fixture;
using detail = tandem::advanced_connection_context_t;

TEST_F(workers, the_library_connects_where_the_hook_declines) {
    unsigned short port = 0;
    const fd_t listener(context->open_tcp_listen_socket("127.0.0.1", &port));
    push(peer_stream, request("TCP", "127.0.0.1", port) + frame("early"));
    ASSERT_TRUE(settle_until([&] { return context->remote_instances.size() == 1; }));
    const fd_t accepted(accept(listener, nullptr, nullptr));
    EXPECT_TRUE(receives(accepted, "early"));
}

TEST_F(workers, a_target_that_fails_ends_the_stream) {
    unsigned short port = 0;
    fd_t(context->open_tcp_listen_socket("127.0.0.1", &port)).reset();
    uint64_t stream_id = peer_stream;
    for (const auto& [host, target_port] : {std::pair("no.such.name", 80), std::pair("127.0.0.1", int{port})}) {
        push(stream_id, request("TCP", host, static_cast<uint16_t>(target_port)));
        EXPECT_TRUE(settle_until([&] { return tables_empty(); }));
        EXPECT_TRUE(is_ended(stream_id));
        stream_id += 4;
    }
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
    push(peer_stream, end_of_stream, true);
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
    slow_name = &name;
    push(peer_stream, request("TCP", "slow.test", 80));
    name.entered.get_future().wait();
    const std::weak_ptr<detail::forward_detail> record = context->remote_streams.at(peer_stream);
    context->on_destroy();
    context.reset();
    EXPECT_FALSE(record.expired());
    // The worker returns to a context that is gone, and drops the last reference to its record.
    name.go.set_value();
    EXPECT_TRUE(settle_until([&] { return record.expired(); }));
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
    options_t options_seen;
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
    EXPECT_EQ(options_seen, (options_t{{"up", "got0 and got0"}}));
}

}  // namespace
}  // namespace forward_test
