// Registering, listening, removing: the tables, the messages and the request.
#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using forwards = forward_fixture;
using detail = tandem::advanced_connection_context_t;

std::string printed(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST_F(forwards, a_request_is_exactly_these_bytes) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    const fd_t client = accept_client(port, stream_id);
    const std::string body =
        "\xA4\x46\x57\x44\x52\x84\xA1\x74\xA3\x54\x43\x50\xA2\x66\x61\xA4\x54\x4F\x44\x4F\xA2\x74\x61\xA8\x31\x30\x2E"
        "\x30\x2E\x30\x2E\x31\xA2\x74\x70\xCD\x1F\x90";
    EXPECT_EQ(fake::sent(connection, stream_id), "\x26" + body);
    EXPECT_EQ(context->local_streams.at(stream_id)->state, detail::STATE_INITIATED);
}

TEST_F(forwards, wrong_or_repeated_arguments_add_nothing) {
    EXPECT_EQ(context->add_tcp_forward(-1, "a", 1, false), -1);
    EXPECT_EQ(context->add_tcp_forward(5, "", 1, false), -1);
    const std::string refused = printed([&] { EXPECT_EQ(context->add_udp_forward(5, "a", 0, false), -1); });
    EXPECT_NE(refused.find("]Add UDP forward - ERROR! Invalid UDP forward arguments! (fd=5, target-addr=a, "
                           "target-port=0)\n"),
              std::string::npos);
    EXPECT_EQ(context->add_vpn_forward(-1, "", false), -1);
    EXPECT_TRUE(context->forwards.empty());

    socket_pair_t tun(SOCK_DGRAM);
    EXPECT_EQ(context->add_vpn_forward(tun.ours, "", true), tun.ours);
    const std::string twice = printed([&] { EXPECT_EQ(context->add_tcp_forward(tun.ours, "a", 1, false), -1); });
    EXPECT_NE(twice.find("]Add TCP forward - ERROR! The socket (" + std::to_string(int{tun.ours}) +
                         ") is already existed!\n"),
              std::string::npos);
    EXPECT_EQ(printed([&] { EXPECT_EQ(remove(12345), 0); }), "");
}

TEST_F(forwards, removed_before_the_first_pass_it_is_never_opened) {
    unsigned short port = 0;
    const int fd = context->open_tcp_listen_socket("127.0.0.1", &port);
    context->add_tcp_forward(fd, "t", 1, false);
    EXPECT_EQ(context->forwards.at(fd)->state, detail::STATE_TO_OPEN);
    // On the loop's thread the pass runs inside the call.
    const std::string line = printed([&] { EXPECT_EQ(remove(fd), 1); });
    EXPECT_NE(line.find("]Removing forward - (handle=" + std::to_string(fd) + ", type=TCP, target=t:1)\n"),
              std::string::npos);
    EXPECT_TRUE(tables_empty());
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(loop.count(fake::watcher_t::io), 0u);
}

TEST_F(forwards, removing_one_closes_its_connections_only) {
    unsigned short port_a = 0, port_b = 0;
    uint64_t stream_a = 0, stream_b = 0;
    const int a = listen_forward(port_a);
    const int b = listen_forward(port_b, true);
    const fd_t client_a = accept_client(port_a, stream_a);
    const fd_t client_b = accept_client(port_b, stream_b);
    remove(a);
    EXPECT_TRUE(fake::stream(connection, stream_a).fin);
    EXPECT_FALSE(fake::stream(connection, stream_b).fin);
    EXPECT_EQ(end_of(client_a), "EOF");
    EXPECT_EQ(end_of(client_b), "");
    EXPECT_FALSE(is_open(a));
    EXPECT_EQ(context->local_streams.size(), 1u);

    remove(b);
    EXPECT_EQ(end_of(client_b), "EOF");
    EXPECT_TRUE(is_open(b));
    EXPECT_TRUE(tables_empty());
    close(b);
}

TEST_F(forwards, what_the_caller_keeps_open_outlives_the_context) {
    unsigned short port = 0;
    const int kept = listen_forward(port, true);
    const int given = listen_forward(port);
    uint64_t stream_id = 0;
    const fd_t client = accept_client(port, stream_id);
    context.reset();
    EXPECT_TRUE(is_open(kept));
    EXPECT_FALSE(is_open(given));
    EXPECT_EQ(end_of(client), "EOF");
    for (const auto kind : {fake::watcher_t::io, fake::watcher_t::timer, fake::watcher_t::async}) {
        EXPECT_EQ(loop.count(kind), 0u);
    }
    close(kept);
}

TEST_F(forwards, destruction_before_or_without_any_use) {
    context.reset();
    context_t own_loop(nullptr);
    context_t callers_loop(loop.handle());
}

TEST_F(forwards, without_a_stream_a_client_is_closed_and_the_listener_lives) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    fake::fail("tndm_get_next_local_stream_id");
    const fd_t refused = connect_to(port);
    EXPECT_TRUE(settle_until([&] { return end_of(refused) == "EOF"; }));
    fake::heal("tndm_get_next_local_stream_id");
    const fd_t client = accept_client(port, stream_id);
    EXPECT_EQ(end_of(client), "");
}

TEST_F(forwards, a_request_that_cannot_be_sent_closes_the_instance) {
    unsigned short port = 0;
    listen_forward(port);
    fake::fail("tndm_add_to_stream");
    const fd_t client = connect_to(port);
    std::string log;
    log = printed([&] { EXPECT_TRUE(settle_until([&] { return end_of(client) == "EOF"; })); });
    EXPECT_NE(log.find("]TCP Connection Instance - ERROR! Failed to send initial packet for peer connection! (fd="),
              std::string::npos);
    settle();
    EXPECT_TRUE(context->local_streams.empty());
    EXPECT_TRUE(context->local_instances.empty());
    EXPECT_EQ(context->forwards.size(), 1u);
}

TEST_F(forwards, an_event_for_an_unknown_descriptor_closes_it) {
    socket_pair_t sockets;
    const int fd = sockets.ours.release();
    struct probe : context_t {
        using context_t::process_tcp_listen_io_read;
    };
    const std::string log = printed([&] { (context.get()->*(&probe::process_tcp_listen_io_read))(fd); });
    EXPECT_NE(log.find("]Accept Socket (TCP) - ERROR! No managed fd=(" + std::to_string(fd) + ")!\n"),
              std::string::npos);
    EXPECT_FALSE(is_open(fd));
}

TEST_F(forwards, udp_sources_have_a_stream_each_and_datagrams_keep_their_bounds) {
    unsigned short port = 0;
    const int fd = context->open_udp_socket("127.0.0.1", &port);
    context->add_udp_forward(fd, "10.0.0.1", 53, false);
    settle();
    const fd_t a = connect_to(port, SOCK_DGRAM), b = connect_to(port, SOCK_DGRAM);
    const uint64_t stream_a = connection->next_stream;
    ASSERT_EQ(send(a, "one", 3, 0) + send(a, "two", 3, 0), 6);
    ASSERT_TRUE(settle_until([&] { return fake::sent(connection, stream_a).ends_with("\x03one\x03two"); }));
    ASSERT_EQ(send(b, "three", 5, 0), 5);
    ASSERT_TRUE(settle_until([&] { return fake::sent(connection, stream_a + 4).ends_with("\x05three"); }));
    EXPECT_EQ(context->udp_peers.size(), 2u);

    push(stream_a, frame("answer"));
    EXPECT_EQ(read_all(a), "answer");
    // The last datagram is sent, then the peer goes; the listener stays.
    push(stream_a, frame("last"), true);
    EXPECT_EQ(read_all(a), "last");
    settle();
    EXPECT_EQ(context->udp_peers.size(), 1u);
    EXPECT_TRUE(is_open(fd));

    auto peer = context->udp_peers.begin()->second;
    peer->last_active_us -= 119000000;
    on_loop([&] { context->period_check(); });
    EXPECT_EQ(context->udp_peers.size(), 1u);
    peer->last_active_us -= 2000000;
    on_loop([&] { context->period_check(); });
    EXPECT_TRUE(context->udp_peers.empty() && context->local_streams.empty());

    ASSERT_EQ(send(b, "", 0, 0), 0);
    EXPECT_TRUE(settle_until([&] { return tables_empty(); }));
    EXPECT_FALSE(is_open(fd));
}

TEST_F(forwards, a_tun_device_is_one_instance_and_a_frame_is_one_packet) {
    socket_pair_t tun(SOCK_DGRAM);
    const uint64_t stream_id = connection->next_stream;
    context->add_vpn_forward(tun.ours, "mode:tap", true);
    settle();
    on_loop([&] { context->update_forwarding(); });
    EXPECT_EQ(context->local_instances.size(), 1u);
    EXPECT_EQ(connection->next_stream, stream_id + 4);
    const std::string frame_1500(1500, 'f');
    ASSERT_EQ(send(tun.theirs, frame_1500.data(), 1500, 0), 1500);
    settle();
    EXPECT_TRUE(fake::sent(connection, stream_id).ends_with(frame(frame_1500)));
    push(stream_id, frame("in1") + frame("in2"));
    settle();
    char buffer[100];
    EXPECT_EQ(recv(tun.theirs, buffer, sizeof(buffer), 0), 3);
    EXPECT_EQ(recv(tun.theirs, buffer, sizeof(buffer), 0), 3);
    remove(tun.ours);
    EXPECT_TRUE(tables_empty());
    EXPECT_TRUE(is_open(tun.ours));
    EXPECT_TRUE(fake::stream(connection, stream_id).fin);
}

// The connection is lost: listeners go, too, unless the caller keeps them.
TEST_F(forwards, the_end_of_the_connection_takes_everything_down) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    const int fd = listen_forward(port);
    const fd_t client = accept_client(port, stream_id);
    socket_pair_t target = open_remote();
    context->on_destroy();
    settle();
    EXPECT_TRUE(tables_empty());
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(end_of(client), "EOF");
    EXPECT_EQ(end_of(target.theirs), "EOF");
    push(peer_stream + 4, request("TCP", "127.0.0.1", 80));
    EXPECT_TRUE(tables_empty());
}

}  // namespace
}  // namespace forward_test
