// Lossless delivery over a transport that lacks the further functions: the connection's counters bound what they can.
#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using lossless_plain = lossless_fixture;

TEST_F(lossless_plain, reading_stops_while_the_connection_is_full) {
    ASSERT_TRUE(tndm_get_stream_backlog == nullptr);
    socket_pair_t sockets = open_remote();
    connection->bytes_queued = connection->data_sent + (9 << 20);
    for (const char* body : {"a", "b"}) {
        ASSERT_EQ(transmit(sockets.theirs, body), 1);
        settle();
    }
    loop.fire_timers();
    settle();
    EXPECT_EQ(sent(), frame("a"));
    connection->data_sent = connection->bytes_queued;
    loop.fire_timers();
    settle();
    EXPECT_EQ(sent(), frame("a") + frame("b"));
}

TEST_F(lossless_plain, datagrams_pass_beside_what_the_connection_may_hold) {
    unsigned short port = 0;
    udp_forward(port);
    const fd_t client = connect_to(port, SOCK_DGRAM);
    const uint64_t stream_id = connection->next_stream;
    for (const auto& [queued, body] : {std::pair(7 << 20, "passes"), std::pair(9 << 20, "waits")}) {
        connection->bytes_queued = connection->data_sent + static_cast<uint64_t>(queued);
        ASSERT_GT(transmit(client, body), 0);
        settle();
    }
    EXPECT_TRUE(sent(stream_id).ends_with(frame("passes")));
    connection->bytes_queued = connection->data_sent + (3 << 20);
    loop.fire_timers();
    settle();
    EXPECT_TRUE(sent(stream_id).ends_with(frame("waits")));
}

TEST_F(lossless_plain, a_slow_socket_loses_nothing) {
    socket_pair_t sockets = open_remote();
    const std::string big(6 << 20, 'z');
    push(peer_stream, frame(big), true);
    EXPECT_TRUE(receives(sockets.theirs, big + "<EOF>"));
}

}  // namespace
}  // namespace forward_test
