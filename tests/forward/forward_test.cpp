// Registering, listening, removing: the tables, the messages and the request.
#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using forwards = forward_fixture;
using detail = tandem::advanced_connection_context_t;

// Whether `action` makes the library say this; %d is the descriptor.
bool says(const std::string& line, const std::function<void()>& action) {
    return printed(action).find("]" + line) != std::string::npos;
}

TEST_F(forwards, a_request_is_exactly_these_bytes) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    const fd_t client = accept_client(port, stream_id);
    const std::string body =
        "\xA4\x46\x57\x44\x52\x84\xA1\x74\xA3\x54\x43\x50\xA2\x66\x61\xA4\x54\x4F\x44\x4F\xA2\x74\x61\xA8\x31\x30\x2E"
        "\x30\x2E\x30\x2E\x31\xA2\x74\x70\xCD\x1F\x90";
    EXPECT_EQ(sent(stream_id), "\x26" + body);
    EXPECT_EQ(context->local_streams.at(stream_id)->state, detail::STATE_INITIATED);
}

TEST_F(forwards, wrong_or_repeated_arguments_add_nothing) {
    EXPECT_EQ(context->add_tcp_forward(-1, "a", 1, false), -1);
    EXPECT_EQ(context->add_tcp_forward(5, "", 1, false), -1);
    EXPECT_TRUE(says("Add UDP forward - ERROR! Invalid UDP forward arguments! (fd=5, target-addr=a, target-port=0)\n",
                     [&] { EXPECT_EQ(context->add_udp_forward(5, "a", 0, false), -1); }));
    EXPECT_EQ(context->add_vpn_forward(-1, "", false), -1);
    EXPECT_TRUE(context->forwards.empty());

    socket_pair_t tun(SOCK_DGRAM);
    EXPECT_EQ(context->add_vpn_forward(tun.ours, "", true), tun.ours);
    EXPECT_TRUE(says(fake::text("Add TCP forward - ERROR! The socket (%d) is already existed!\n", int{tun.ours}),
                     [&] { EXPECT_EQ(context->add_tcp_forward(tun.ours, "a", 1, false), -1); }));
    EXPECT_EQ(printed([&] { EXPECT_EQ(remove(12345), 0); }), "");
}

TEST_F(forwards, removed_before_the_first_pass_it_is_never_opened) {
    unsigned short port = 0;
    const int fd = context->open_tcp_listen_socket("127.0.0.1", &port);
    context->add_tcp_forward(fd, "t", 1, false);
    EXPECT_EQ(context->forwards.at(fd)->state, detail::STATE_TO_OPEN);
    // On the loop's thread the pass runs inside the call.
    EXPECT_TRUE(says(fake::text("Removing forward - (handle=%d, type=TCP, target=t:1)\n", fd),
                     [&] { EXPECT_EQ(remove(fd), 1); }));
    EXPECT_TRUE(tables_empty());
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(loop.count(fake::watcher_t::io), 0u);
}

TEST_F(forwards, removing_one_closes_its_connections_only_and_what_the_caller_keeps_stays_open) {
    unsigned short port_a = 0, port_b = 0;
    uint64_t stream_a = 0, stream_b = 0;
    const int a = listen_forward(port_a);
    const int b = listen_forward(port_b, true);
    const fd_t client_a = accept_client(port_a, stream_a);
    const fd_t client_b = accept_client(port_b, stream_b);
    remove(a);
    EXPECT_TRUE(is_ended(stream_a));
    EXPECT_FALSE(is_ended(stream_b));
    EXPECT_EQ(read_all(client_a), "<EOF>");
    EXPECT_EQ(read_all(client_b), "");
    EXPECT_FALSE(is_open(a));
    EXPECT_EQ(context->local_streams.size(), 1u);

    context.reset();
    EXPECT_EQ(read_all(client_b), "<EOF>");
    EXPECT_TRUE(is_open(b));
    for (const auto kind : {fake::watcher_t::io, fake::watcher_t::timer, fake::watcher_t::async})
        EXPECT_EQ(loop.count(kind), 0u);
    close(b);
    // Destruction before or without any use.
    context_t own_loop(nullptr);
    context_t callers_loop(loop.handle());
}

TEST_F(forwards, a_client_without_a_stream_or_a_request_is_closed_and_the_listener_lives) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    fake::fail("tndm_get_next_local_stream_id");
    const fd_t refused = connect_to(port);
    EXPECT_TRUE(receives(refused, "<EOF>"));
    fake::heal("tndm_get_next_local_stream_id");
    fake::fail("tndm_add_to_stream");
    const fd_t unasked = connect_to(port);
    EXPECT_TRUE(says("TCP Connection Instance - ERROR! Failed to send initial packet for peer connection! (fd=",
                     [&] { EXPECT_TRUE(receives(unasked, "<EOF>")); }));
    settle();
    EXPECT_TRUE(context->local_streams.empty() && context->local_instances.empty());
    fake::heal("tndm_add_to_stream");
    const fd_t client = accept_client(port, stream_id);
    EXPECT_EQ(read_all(client), "");
}

TEST_F(forwards, an_event_for_an_unknown_descriptor_closes_it) {
    socket_pair_t sockets;
    const int fd = sockets.ours.release();
    EXPECT_TRUE(says(fake::text("Accept Socket (TCP) - ERROR! No managed fd=(%d)!\n", fd),
                     [&] { context->process_tcp_listen_io_read(fd); }));
    EXPECT_FALSE(is_open(fd));
}

TEST_F(forwards, udp_sources_have_a_stream_each_and_datagrams_keep_their_bounds) {
    unsigned short port = 0;
    const int fd = udp_forward(port);
    const fd_t a = connect_to(port, SOCK_DGRAM), b = connect_to(port, SOCK_DGRAM);
    const uint64_t stream_a = connection->next_stream;
    ASSERT_EQ(transmit(a, "one") + transmit(a, "two"), 6);
    ASSERT_TRUE(settle_until([&] { return sent(stream_a).ends_with("\x03one\x03two"); }));
    ASSERT_EQ(transmit(b, "three"), 5);
    ASSERT_TRUE(settle_until([&] { return sent(stream_a + 4).ends_with("\x05three"); }));
    EXPECT_EQ(context->udp_peers.size(), 2u);

    push(stream_a, frame("answer"));
    EXPECT_EQ(receive_one(a), "answer");
    // The last datagram is sent, then the peer goes; the listener stays.
    push(stream_a, frame("last"), true);
    EXPECT_EQ(receive_one(a), "last");
    settle();
    EXPECT_TRUE(is_open(fd));

    auto peer = context->udp_peers.begin()->second;
    for (const int64_t idle_us : {120000000, 120000001}) {
        EXPECT_EQ(context->udp_peers.size(), 1u);
        loop.hold([&] { context->reap_idle_peers(peer->last_active_us + idle_us); });
    }
    EXPECT_TRUE(context->udp_peers.empty() && context->local_streams.empty());

    ASSERT_EQ(transmit(b, ""), 0);
    EXPECT_TRUE(settle_until([&] { return tables_empty(); }));
    EXPECT_FALSE(is_open(fd));
}

TEST_F(forwards, a_tun_device_is_one_instance_and_a_frame_is_one_packet) {
    socket_pair_t tun(SOCK_DGRAM);
    const uint64_t stream_id = connection->next_stream;
    context->add_vpn_forward(tun.ours, "mode:tap", true);
    settle();
    loop.hold([&] { context->update_forwarding(); });
    EXPECT_EQ(context->local_instances.size(), 1u);
    EXPECT_EQ(connection->next_stream, stream_id + 4);
    const std::string body(1500, 'f');
    ASSERT_EQ(transmit(tun.theirs, body), 1500);
    settle();
    EXPECT_TRUE(sent(stream_id).ends_with(frame(body)));
    push(stream_id, frame("in1") + frame("in2"));
    settle();
    for (const char* in : {"in1", "in2"})
        EXPECT_EQ(receive_one(tun.theirs), in);
    remove(tun.ours);
    EXPECT_TRUE(tables_empty());
    EXPECT_TRUE(is_open(tun.ours));
    EXPECT_TRUE(is_ended(stream_id));
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
    EXPECT_EQ(read_all(client), "<EOF>");
    EXPECT_EQ(read_all(target.theirs), "<EOF>");
    push(peer_stream + 4, request("TCP", "127.0.0.1", 80));
    EXPECT_TRUE(tables_empty());
}

}  // namespace
}  // namespace forward_test
