// TCP with lossless delivery: no byte is lost, each direction ends by itself, queues are bounded.
#include <sys/resource.h>

#include <random>

#include "forward/tcp_flow.h"
#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using detail = tandem::advanced_connection_context_t;

const std::string end_of_stream(1, '\0');

std::string random_text(size_t size) {
    std::mt19937_64 random(size);
    std::string text(size, '\0');
    for (char& c : text) {
        c = static_cast<char>(random());
    }
    return text;
}

class lossless : public forward_fixture {
  protected:
    void SetUp() override {
        fake::reset();
        make([](context_t& made) { made.set_delivery(tandem::delivery_t::lossless); });
    }
    detail::forward_detail& remote(uint64_t stream_id = peer_stream) { return *context->remote_streams.at(stream_id); }
    // Reads from a socket until it has given `size` bytes or ended.
    std::string drain(int fd, size_t size, std::string* end = nullptr) {
        std::string got, state;
        settle_until([&] {
            got += read_all(fd, &state);
            return got.size() >= size && (!end || !state.empty());
        });
        if (end) *end = state;
        return got;
    }
};

TEST_F(lossless, a_big_body_survives_short_writes) {
    socket_pair_t sockets = open_remote();
    const std::string big = random_text(5 << 20);
    push(peer_stream, frame(big.substr(0, 3 << 20)) + frame(big.substr(3 << 20)));
    // Nothing is read yet: the rest waits, and the peer is held back.
    EXPECT_TRUE(fake::stream(connection, peer_stream).paused);
    EXPECT_TRUE(remote().tx_active);
    EXPECT_EQ(drain(sockets.theirs, big.size()), big);
    settle();
    EXPECT_FALSE(fake::stream(connection, peer_stream).paused);
    EXPECT_FALSE(remote().tx_active);
    EXPECT_EQ(remote().flow.queued, 0u);
}

TEST_F(lossless, everything_before_the_end_is_written_then_the_socket_shut_down) {
    socket_pair_t sockets = open_remote();
    const std::string big = random_text(3 << 20);
    // The end comes in one delivery with two packets.
    push(peer_stream, frame(big) + frame("tail"), true);
    settle();
    std::string end;
    EXPECT_EQ(drain(sockets.theirs, big.size() + 4, &end), big + "tail");
    EXPECT_EQ(end, "EOF");
    // The other direction is as open as before.
    EXPECT_FALSE(fake::stream(connection, peer_stream).fin);
    ASSERT_EQ(send(sockets.theirs, "answer", 6, 0), 6);
    settle();
    EXPECT_EQ(fake::sent(connection, peer_stream), frame("answer"));
    sockets.theirs.reset();
    settle();
    EXPECT_EQ(fake::sent(connection, peer_stream), frame("answer") + end_of_stream);
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
        std::string end;
        EXPECT_EQ(read_all(sockets.theirs, &end), "one two three");
        EXPECT_EQ(end, "EOF");
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
    ASSERT_TRUE(settle_until([&] { return fake::stream(connection, stream_id).fin; }));
    EXPECT_TRUE(fake::sent(connection, stream_id).ends_with(end_of_stream));
    push(stream_id, frame("late answer"));
    EXPECT_EQ(drain(client, 11), "late answer");
    // The end alone, as an empty frame, is not answered; both directions are over.
    fake::clear_calls();
    push(stream_id, end_of_stream, true);
    settle();
    EXPECT_EQ(end_of(client), "EOF");
    EXPECT_EQ(fake::count_calls("add_to_stream"), 0);
    EXPECT_TRUE(context->local_streams.empty() && context->local_instances.empty());
}

TEST_F(lossless, a_request_may_come_with_all_its_data_and_the_end) {
    socket_pair_t sockets = open_remote(peer_stream, frame("all") + frame(" there is"), true);
    std::string end;
    EXPECT_EQ(drain(sockets.theirs, 12, &end), "all there is");
    EXPECT_EQ(end, "EOF");
    EXPECT_EQ(remote().state, detail::STATE_OPEN);

    socket_pair_t without_data = open_remote(peer_stream + 4, "", true);
    settle();
    EXPECT_EQ(end_of(without_data.theirs), "EOF");
}

TEST_F(lossless, reading_stops_while_the_stream_is_full) {
    socket_pair_t sockets = open_remote();
    fake::set_backlog(connection, peer_stream, 1 << 20);
    ASSERT_EQ(send(sockets.theirs, "a", 1, 0), 1);
    settle();
    ASSERT_EQ(send(sockets.theirs, "b", 1, 0), 1);
    settle();
    EXPECT_EQ(fake::sent(connection, peer_stream), frame("a"));
    EXPECT_TRUE(fake::stream(connection, peer_stream).writable_requested);
    EXPECT_EQ(fake::stream(connection, peer_stream).low_water, 512u << 10);

    fake::set_backlog(connection, peer_stream, 0);
    context->stream_writable(peer_stream);
    context->stream_writable(12345);
    settle();
    EXPECT_EQ(fake::sent(connection, peer_stream), frame("a") + frame("b"));

    // A notice that never comes: the timer looks.
    fake::fail("tndm_request_writable");
    fake::set_backlog(connection, peer_stream, 1 << 20);
    ASSERT_EQ(send(sockets.theirs, "c", 1, 0), 1);
    settle();
    ASSERT_EQ(send(sockets.theirs, "d", 1, 0), 1);
    loop.fire_timers();
    settle();
    EXPECT_FALSE(fake::sent(connection, peer_stream).ends_with("d"));
    fake::set_backlog(connection, peer_stream, 0);
    loop.fire_timers();
    settle();
    EXPECT_TRUE(fake::sent(connection, peer_stream).ends_with("d"));
}

TEST_F(lossless, one_connection_has_a_bounded_share_of_a_wakeup) {
    socket_pair_t sockets = open_remote();
    const int fd = context->remote_instances.begin()->first;
    const int size = 8 << 20;
    setsockopt(sockets.theirs, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size));
    const std::string big(1 << 16, 'x');
    while (send(sockets.theirs, big.data(), big.size(), MSG_DONTWAIT) > 0) {
    }
    loop.fire_io(fd, TLOOP_IO_READ);
    EXPECT_LE(connection->bytes_queued, (1u << 20) + 16 * 8);
}

TEST_F(lossless, a_reset_socket_ends_the_stream) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    fd_t client = accept_client(port, stream_id);
    const linger reset{1, 0};
    setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    client.reset();
    ASSERT_TRUE(settle_until([&] { return context->local_streams.empty(); }));
    EXPECT_TRUE(fake::stream(connection, stream_id).fin);
    EXPECT_EQ(context->forwards.size(), 1u);
}

TEST_F(lossless, broken_framing_ends_the_instance_and_resets_its_socket) {
    unsigned short port = 0;
    listen_forward(port);
    // An end inside a packet; the loss of the connection.
    for (const int fault : {1, 2}) {
        uint64_t stream_id = 0;
        const fd_t client = accept_client(port, stream_id);
        if (fault == 1) push(stream_id, "\x05ha", true);
        if (fault == 2) context->on_destroy();
        settle();
        EXPECT_TRUE(context->local_streams.empty());
        EXPECT_TRUE(fake::stream(connection, stream_id).fin);
        EXPECT_EQ(end_of(client), "Connection reset by peer") << fault;
    }
}

TEST_F(lossless, the_listener_outlives_a_lack_of_descriptors) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    const int fd = listen_forward(port);
    const fd_t waiting = connect_to(port);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(loop.fire_io(fd, TLOOP_IO_READ), 1);
    // Off until the timer, or the loop would spin.
    EXPECT_EQ(loop.fire_io(fd, TLOOP_IO_READ), 0);
    setrlimit(RLIMIT_NOFILE, &before);
    stream_id = connection->next_stream;
    loop.fire_timers();
    EXPECT_TRUE(settle_until([&] { return context->local_streams.contains(stream_id); }));
}

TEST_F(lossless, closing_lets_go_of_a_paused_stream) {
    socket_pair_t sockets = open_remote();
    push(peer_stream, frame(random_text(4 << 20)));
    EXPECT_TRUE(fake::stream(connection, peer_stream).paused);
    sockets.theirs.reset();
    ASSERT_TRUE(settle_until([&] { return tables_empty(); }));
    EXPECT_FALSE(fake::stream(connection, peer_stream).paused);
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
    EXPECT_EQ(flow.queued, 0u);
    EXPECT_EQ(flow.front_written, 0u);
}

TEST(tcp_flow, many_instances_share_what_few_may_have) {
    EXPECT_EQ(tandem::flow_marks(1).high, 1u << 20);
    EXPECT_EQ(tandem::flow_marks(64).high, 512u << 10);
    EXPECT_EQ(tandem::flow_marks(100000).high, 128u << 10);
}

}  // namespace
}  // namespace forward_test
