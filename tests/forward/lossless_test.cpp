// TCP with lossless delivery: no byte is lost, each direction ends by itself, queues are bounded.

#include <random>

#include "forward/tcp_flow.h"
#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using detail = tandem::advanced_connection_context_t;

std::string random_text(size_t size) {
    std::mt19937_64 random(size);
    std::string text(size, '\0');
    for (char& c : text)
        c = static_cast<char>(random());
    return text;
}

class lossless : public lossless_fixture {
  protected:
    detail::forward_detail& remote(uint64_t stream_id = peer_stream) { return *context->remote_streams.at(stream_id); }
    bool is_paused() { return fake::stream(connection, peer_stream).paused; }
    void transmit_and_settle(int fd, const std::string& bytes) {
        ASSERT_EQ(transmit(fd, bytes), static_cast<int>(bytes.size()));
        settle();
    }
};

TEST_F(lossless, everything_before_the_end_is_written_then_the_socket_shut_down) {
    socket_pair_t sockets = open_remote();
    const std::string big = random_text(5 << 20);
    push(peer_stream, frame(big));
    // Nothing is read yet: the rest waits, and the peer is held back.
    EXPECT_TRUE(is_paused());
    EXPECT_TRUE(remote().tx_active);
    EXPECT_TRUE(receives(sockets.theirs, big));
    settle();
    EXPECT_FALSE(is_paused());
    EXPECT_FALSE(remote().tx_active);
    EXPECT_EQ(remote().flow.queued, 0u);
    // The end comes in one delivery with two packets.
    push(peer_stream, frame(big) + frame("tail"), true);
    settle();
    EXPECT_TRUE(receives(sockets.theirs, big + "tail<EOF>"));
    // The other direction is as open as before.
    EXPECT_FALSE(is_ended());
    transmit_and_settle(sockets.theirs, "answer");
    EXPECT_EQ(sent(), frame("answer"));
    sockets.theirs.reset();
    settle();
    EXPECT_EQ(sent(), frame("answer") + end_of_stream);
    EXPECT_TRUE(tables_empty());
}

// Each packet of the last delivery says that the stream ends; only behind the last one it has.
TEST_F(lossless, the_end_comes_behind_the_last_packet_of_its_delivery) {
    uint64_t stream_id = peer_stream;
    for (const std::string& last : {std::string(), end_of_stream}) {
        socket_pair_t sockets = open_remote(stream_id);
        settle();
        push(stream_id, frame("one ") + frame("two ") + frame("three") + last, true);
        settle();
        EXPECT_EQ(read_all(sockets.theirs), "one two three<EOF>");
        EXPECT_EQ(remote(stream_id).state, detail::STATE_OPEN);
        stream_id += 4;
    }
    // With the request itself, too.
    for (const std::string& all : {frame("all") + frame(" there is"), std::string()}) {
        socket_pair_t sockets = open_remote(stream_id, all, true);
        EXPECT_TRUE(receives(sockets.theirs, bodies(all) + "<EOF>"));
        EXPECT_EQ(remote(stream_id).state, detail::STATE_OPEN);
        stream_id += 4;
    }
}

TEST_F(lossless, an_end_of_file_ends_one_direction_only) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    const fd_t client = accept_client(port, stream_id);
    shutdown(client, SHUT_WR);
    ASSERT_TRUE(settle_until([&] { return is_ended(stream_id); }));
    EXPECT_TRUE(sent(stream_id).ends_with(end_of_stream));
    push(stream_id, frame("late answer"));
    EXPECT_TRUE(receives(client, "late answer"));
    // The end alone, as an empty frame, is not answered; both directions are over.
    fake::clear_calls();
    push(stream_id, end_of_stream, true);
    settle();
    EXPECT_EQ(read_all(client), "<EOF>");
    EXPECT_EQ(fake::count_calls("add_to_stream"), 0);
    EXPECT_TRUE(context->local_streams.empty() && context->local_instances.empty());
}

TEST_F(lossless, reading_stops_while_the_stream_is_full) {
    socket_pair_t sockets = open_remote();
    fake::set_backlog(connection, peer_stream, 1 << 20);
    transmit_and_settle(sockets.theirs, "a");
    transmit_and_settle(sockets.theirs, "b");
    EXPECT_EQ(sent(), frame("a"));
    EXPECT_TRUE(fake::stream(connection, peer_stream).writable_requested);
    EXPECT_EQ(fake::stream(connection, peer_stream).low_water, 512u << 10);

    fake::set_backlog(connection, peer_stream, 0);
    context->stream_writable(peer_stream);
    context->stream_writable(12345);
    settle();
    EXPECT_EQ(sent(), frame("a") + frame("b"));

    // A notice that never comes: the timer looks.
    fake::fail("tndm_request_writable");
    fake::set_backlog(connection, peer_stream, 1 << 20);
    transmit_and_settle(sockets.theirs, "c");
    transmit_and_settle(sockets.theirs, "d");
    loop.fire_timers();
    settle();
    EXPECT_FALSE(sent().ends_with("d"));
    fake::set_backlog(connection, peer_stream, 0);
    loop.fire_timers();
    settle();
    EXPECT_TRUE(sent().ends_with("d"));
}

TEST_F(lossless, one_connection_has_a_bounded_share_of_a_wakeup) {
    socket_pair_t sockets = open_remote();
    const int size = 8 << 20;
    setsockopt(sockets.theirs, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size));
    const std::string big(1 << 16, 'x');
    while (send(sockets.theirs, big.data(), big.size(), MSG_DONTWAIT) > 0) {
    }
    loop.fire_io(context->remote_instances.begin()->first, TLOOP_IO_READ);
    EXPECT_LE(connection->bytes_queued, (1u << 20) + 16 * 8);
}

// A reset socket ends the stream; an end inside a packet and the loss of the connection reset the socket.
TEST_F(lossless, what_breaks_one_side_breaks_the_other) {
    unsigned short port = 0;
    listen_forward(port);
    for (const int fault : {0, 1, 2}) {
        uint64_t stream_id = 0;
        fd_t client = accept_client(port, stream_id);
        if (fault == 0) {
            const linger reset{1, 0};
            setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
            client.reset();
        }
        if (fault == 1) push(stream_id, "\x05ha", true);
        if (fault == 2) context->on_destroy();
        ASSERT_TRUE(settle_until([&] { return context->local_streams.empty(); }));
        EXPECT_TRUE(is_ended(stream_id));
        EXPECT_TRUE(fault == 0 || read_all(client) == "Connection reset by peer") << fault;
        EXPECT_EQ(context->forwards.size(), fault == 2 ? 0u : 1u);
    }
}

TEST_F(lossless, the_listener_outlives_a_lack_of_descriptors) {
    unsigned short port = 0;
    const int fd = listen_forward(port);
    const fd_t waiting = connect_to(port);
    without_descriptors([&] {
        EXPECT_EQ(loop.fire_io(fd, TLOOP_IO_READ), 1);
        // Off until the timer, or the loop would spin.
        EXPECT_EQ(loop.fire_io(fd, TLOOP_IO_READ), 0);
    });
    const uint64_t stream_id = connection->next_stream;
    loop.fire_timers();
    EXPECT_TRUE(settle_until([&] { return context->local_streams.contains(stream_id); }));
}

TEST_F(lossless, closing_lets_go_of_a_paused_stream) {
    socket_pair_t sockets = open_remote();
    push(peer_stream, frame(random_text(4 << 20)));
    EXPECT_TRUE(is_paused());
    sockets.theirs.reset();
    ASSERT_TRUE(settle_until([&] { return tables_empty(); }));
    EXPECT_FALSE(is_paused());
}

// The queue apart from sockets: whatever the sizes of packets and writes, the bytes come out as they went in.
TEST(tcp_flow, gathers_and_consumes_any_pieces) {
    std::mt19937 random(7);
    tandem::tcp_flow_t flow;
    tandem::packet_queue_t queue;
    std::string in, out;
    for (int round = 0; round < 5000; ++round) {
        if (random() % 2) {
            std::string body(1 + random() % 50, static_cast<char>(round));
            in += body;
            flow.push(queue, std::make_shared<tandem::packet_t>(body.data(), body.size(), false));
        }
        iovec parts[4];
        const int count = flow.gather(queue, parts, 4);
        std::string offered;
        for (int i = 0; i < count; ++i) {
            ASSERT_GT(parts[i].iov_len, 0u);
            offered.append(static_cast<char*>(parts[i].iov_base), parts[i].iov_len);
        }
        const size_t written = offered.empty() ? 0 : random() % (offered.size() + 1);
        out += offered.substr(0, written);
        flow.consume(queue, written);
    }
    EXPECT_EQ(out, in.substr(0, out.size()));
    flow.consume(queue, in.size() - out.size());
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(flow.queued + flow.front_written, 0u);
    // Many instances share what few may have.
    EXPECT_EQ(tandem::flow_marks(1).high, 1u << 20);
    EXPECT_EQ(tandem::flow_marks(64).high, 512u << 10);
    EXPECT_EQ(tandem::flow_marks(100000).high, 128u << 10);
}

}  // namespace
}  // namespace forward_test
