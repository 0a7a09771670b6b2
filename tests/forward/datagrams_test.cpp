// UDP and tun/tap with lossless delivery: bounds of datagrams, bounded queues, nothing fatal from afar.
#include "forward/datagram_batch.h"

#include <future>

#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using datagrams = lossless_fixture;

TEST_F(datagrams, of_every_size_keep_their_bounds_both_ways) {
    unsigned short port = 0, other_port = 0;
    udp_forward(port);
    const int other = udp_forward(other_port);
    const fd_t client = connect_to(port, SOCK_DGRAM);
    const uint64_t stream_id = connection->next_stream;
    std::string expected;
    for (const size_t size : {3u, 0u, 63u, 64u, 1400u, 16384u, 65507u}) {
        const std::string body(size, 'd');
        ASSERT_EQ(transmit(client, body), static_cast<int>(size));
        expected += frame(body);
    }
    ASSERT_TRUE(settle_until([&] { return sent(stream_id).ends_with(expected); }));

    // The same source on another forward is another flow.
    const sockaddr_in to{AF_INET, htons(other_port), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(sendto(client, "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 1);
    ASSERT_TRUE(settle_until([&] { return context->udp_peers.size() == 2; }));
    remove(other);

    const std::string large = frame(std::string(20000, 'e'));
    push(stream_id, frame("one") + end_of_stream + large.substr(0, 100));
    push(stream_id, large.substr(100) + frame("last"), true);
    for (const std::string& datagram :
         {std::string("one"), std::string(), std::string(20000, 'e'), std::string("last")})
        EXPECT_EQ(receive_one(client), datagram);
    settle();
    EXPECT_TRUE(context->udp_peers.empty());
    EXPECT_EQ(context->forwards.size(), 1u);
}

TEST_F(datagrams, wait_for_a_full_stream_and_the_oldest_go_first) {
    unsigned short port = 0;
    udp_forward(port);
    const fd_t client = connect_to(port, SOCK_DGRAM);
    const uint64_t stream_id = connection->next_stream;
    ASSERT_EQ(transmit(client, "first"), 5);
    ASSERT_TRUE(settle_until([&] { return sent(stream_id).ends_with(frame("first")); }));
    const size_t before = sent(stream_id).size();
    fake::set_backlog(connection, stream_id, 1 << 20);
    for (int i = 0; i < 400; ++i) {
        ASSERT_EQ(transmit(client, std::to_string(1000 + i) + std::string(996, '.')), 1000);
        settle();
        if (i == 398) context->stream_writable(stream_id);  // too early: what waits keeps its place before the last one
    }
    EXPECT_EQ(sent(stream_id).size(), before);
    EXPECT_TRUE(fake::stream(connection, stream_id).writable_requested);
    fake::set_backlog(connection, stream_id, 0);
    context->stream_writable(stream_id);
    settle();
    const std::string rest = bodies(sent(stream_id, before));
    EXPECT_GT(rest.size(), 150u << 10);
    EXPECT_LT(rest.size(), 256u << 10);
    EXPECT_EQ(rest.substr(rest.size() - 1000, 4), "1399");
    EXPECT_EQ(std::stoul(rest.substr(0, 4)), 1400 - rest.size() / 1000);
}

TEST_F(datagrams, of_more_sources_than_are_taken_are_dropped) {
    unsigned short port = 0;
    udp_forward(port);
    for (int i = 0; i < 16383; ++i)
        context->udp_peers[std::to_string(i)] = std::make_shared<context_t::forward_detail>();
    const fd_t last(connect_to(port, SOCK_DGRAM)), over(connect_to(port, SOCK_DGRAM));
    for (const int source : {int{last}, int{over}, int{last}})
        ASSERT_EQ(transmit(source, "x"), 1);
    settle();
    EXPECT_EQ(context->udp_peers.size(), 16384u);
    const uint64_t stream_id = connection->next_stream - 4;
    EXPECT_TRUE(sent(stream_id).ends_with(frame("x") + frame("x")));

    // Much waits on the connection: who has little of that is heard, who has more is not.
    connection->bytes_queued = connection->data_sent + (33 << 20);
    for (const uint64_t backlog : {4095, 4096}) {
        fake::set_backlog(connection, stream_id, backlog);
        ASSERT_EQ(transmit(last, std::to_string(backlog)), 4);
        settle();
    }
    fake::set_backlog(connection, stream_id, 0);
    context->stream_writable(stream_id);
    settle();
    EXPECT_TRUE(sent(stream_id).ends_with(frame("x") + frame("4095")));
}

TEST_F(datagrams, sent_as_runs_arrive_one_by_one) {
    std::vector<size_t> sizes(70, 100);
    for (const size_t size : {7u, 8u, 8u, 0u, 0u, 1u, 20000u, 20000u, 20000u, 20000u, 3u})
        sizes.push_back(size);
    for (const int refused : {0, 1}) {
        unsigned short port = 0, any = 0;
        const fd_t to(context->open_udp_socket("127.0.0.1", &port)), from(context->open_udp_socket(&any));
        setsockopt(from, SOL_SOCKET, SO_NO_CHECK, &refused, sizeof(refused));  // then the kernel cuts nothing
        sockaddr_storage address{};
        socklen_t length = sizeof(address);
        getsockname(to, reinterpret_cast<sockaddr*>(&address), &length);
        tandem::packet_queue_t queue;
        size_t bytes = 0;
        for (const size_t size : sizes)
            tandem::push_datagram(queue, bytes,
                                  std::make_shared<tandem::packet_t>(std::string(size, 'r').data(), size, false));
        EXPECT_EQ(tandem::send_datagrams(from, queue, bytes, address), 0);
        for (const size_t size : sizes)
            ASSERT_EQ(receive_one(to).size(), size);
    }
}

TEST_F(datagrams, before_the_socket_exists_are_sent_and_strangers_are_not_heard) {
    unsigned short target_port = 0;
    const fd_t target(context->open_udp_socket("127.0.0.1", &target_port));
    push(peer_stream, request("UDP", "127.0.0.1", target_port) + frame("early") + end_of_stream + frame("bird"));
    ASSERT_TRUE(settle_until([&] { return context->remote_instances.size() == 1; }));
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    char buffer[16];
    ASSERT_EQ(recvfrom(target, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &length), 5);
    EXPECT_EQ(receive_one(target), "");
    EXPECT_EQ(receive_one(target), "bird");

    const fd_t stranger = connect_to(ntohs(from.sin_port), SOCK_DGRAM);
    ASSERT_EQ(transmit(stranger, "forged"), 6);
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(target, "answer", 6, 0, reinterpret_cast<sockaddr*>(&from), length), 6);
    ASSERT_TRUE(settle_until([&] { return !sent().empty(); }));
    EXPECT_EQ(sent(), frame("answer"));
}

TEST_F(datagrams, an_interface_pauses_on_a_full_stream_and_outlives_what_the_kernel_refuses) {
    socket_pair_t tun(SOCK_SEQPACKET);
    const uint64_t stream_id = connection->next_stream;
    context->add_vpn_forward(tun.ours, "", true);
    settle();
    const size_t request_size = sent(stream_id).size();
    ASSERT_EQ(transmit(tun.theirs, "small"), 5);
    ASSERT_EQ(transmit(tun.theirs, std::string(9000, 'j')), 9000);
    settle();
    EXPECT_EQ(sent(stream_id, request_size), frame("small") + frame(std::string(9000, 'j')));
    fake::set_backlog(connection, stream_id, 1 << 20);
    for (const char* body : {"a", "b"}) {
        ASSERT_EQ(transmit(tun.theirs, body), 1);
        settle();
    }
    EXPECT_TRUE(sent(stream_id).ends_with(frame("a")));
    fake::set_backlog(connection, stream_id, 0);
    context->stream_writable(stream_id);
    settle();
    EXPECT_TRUE(sent(stream_id).ends_with(frame("b")));

    // Longer than the socket takes at all (EMSGSIZE), as a frame that a device cannot use.
    push(stream_id, frame(std::string(900000, 'x')) + frame("good"));
    settle();
    EXPECT_EQ(receive_one(tun.theirs), "good");

    // The peer gives up: the device is offered again on a new stream.
    push(stream_id, end_of_stream, true);
    settle();
    EXPECT_TRUE(context->local_instances.empty());
    context->forwards.at(tun.ours)->last_active_us -= 3000000;
    loop.fire_timers();
    settle();
    EXPECT_EQ(context->local_instances.size(), 1u);
    EXPECT_NE(sent(stream_id + 4).find("VPN"), std::string::npos);
}

TEST_F(datagrams, an_interface_whose_queue_is_full_drops_the_newest) {
    socket_pair_t tun(SOCK_SEQPACKET);
    const int given = tun.ours.release();
    std::promise<void> go;
    context->vpn_hook = [&, made = go.get_future().share()](std::string&, const std::string&) {
        made.wait();
        return given;
    };
    push(peer_stream, request("VPN", "ifname:vpn0", 0));
    for (int i = 100; i < 300; ++i) {
        push(peer_stream, frame(std::to_string(i) + std::string(9997, '.')));
    }
    // Nothing was read, so a quarter of the two million bytes at least is too much.
    const auto waiting = context->remote_streams.at(peer_stream)->pending_packets;
    EXPECT_GT(waiting.size(), 50u);
    EXPECT_LT(waiting.size(), 150u);
    const auto* last = reinterpret_cast<const char*>(waiting.back()->data());
    EXPECT_EQ(std::string(last, 3), std::to_string(100 + waiting.size() - 1));
    go.set_value();
    ASSERT_TRUE(settle_until([&] { return context->remote_instances.contains(given); }));
    EXPECT_EQ(receive_one(tun.theirs).substr(0, 3), "100");
}

}  // namespace
}  // namespace forward_test
