// Lossless delivery over a transport that lacks the further functions: the connection's counters bound what they can.
#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

class lossless_plain : public forward_fixture {
  protected:
    void SetUp() override {
        fake::reset();
        make([](context_t& made) { made.set_delivery(tandem::delivery_t::lossless); });
    }
};

TEST_F(lossless_plain, reading_stops_while_the_connection_is_full) {
    ASSERT_TRUE(tndm_get_stream_backlog == nullptr);
    socket_pair_t sockets = open_remote();
    connection->bytes_queued = connection->data_sent + (9 << 20);
    ASSERT_EQ(send(sockets.theirs, "a", 1, 0), 1);
    settle();
    ASSERT_EQ(send(sockets.theirs, "b", 1, 0), 1);
    settle();
    loop.fire_timers();
    settle();
    EXPECT_EQ(fake::sent(connection, peer_stream), frame("a"));
    connection->data_sent = connection->bytes_queued;
    loop.fire_timers();
    settle();
    EXPECT_EQ(fake::sent(connection, peer_stream), frame("a") + frame("b"));
}

TEST_F(lossless_plain, a_slow_socket_loses_nothing) {
    socket_pair_t sockets = open_remote();
    const std::string big(6 << 20, 'z');
    push(peer_stream, frame(big), true);
    std::string got, end;
    EXPECT_TRUE(settle_until([&] {
        got += read_all(sockets.theirs, &end);
        return end == "EOF";
    }));
    EXPECT_EQ(got, big);
}

}  // namespace
}  // namespace forward_test
