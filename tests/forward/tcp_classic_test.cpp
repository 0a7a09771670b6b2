// TCP with classic delivery, and the dispatch of packets.
#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using tcp_classic = forward_fixture;
using detail = tandem::advanced_connection_context_t;

TEST_F(tcp_classic, bytes_go_both_ways_and_an_end_of_file_ends_the_stream) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    const fd_t client = accept_client(port, stream_id);
    const size_t request_size = sent(stream_id).size();
    ASSERT_EQ(transmit(client, "hello"), 5);
    ASSERT_TRUE(settle_until([&] { return sent(stream_id, request_size) == frame("hello"); }));
    push(stream_id, frame("world") + frame("!"));
    settle();
    EXPECT_EQ(read_all(client), "world!");
    shutdown(client, SHUT_WR);
    ASSERT_TRUE(settle_until([&] { return context->local_streams.empty(); }));
    EXPECT_EQ(sent(stream_id, request_size), frame("hello") + end_of_stream);
    EXPECT_TRUE(is_ended(stream_id));
    EXPECT_EQ(read_all(client), "<EOF>");
    EXPECT_TRUE(context->local_instances.empty());
}

TEST_F(tcp_classic, the_end_of_the_stream_discards_what_waits) {
    socket_pair_t sockets = open_remote();
    EXPECT_EQ(context->remote_streams.at(peer_stream)->state, detail::STATE_OPEN);
    push(peer_stream, frame("written"));
    settle();
    push(peer_stream, frame("discarded"), true);
    settle();
    EXPECT_EQ(read_all(sockets.theirs), "written<EOF>");
    EXPECT_TRUE(tables_empty());
}

// An instance that ends its stream with an empty frame reaches the other side as a partial packet.
TEST_F(tcp_classic, an_end_alone_closes_the_instance_and_is_answered) {
    socket_pair_t sockets = open_remote();
    push(peer_stream, end_of_stream, true);
    EXPECT_EQ(context->remote_streams.at(peer_stream)->state, detail::STATE_TO_CLOSE);
    EXPECT_TRUE(is_ended());
    settle();
    EXPECT_TRUE(tables_empty());
    EXPECT_EQ(read_all(sockets.theirs), "<EOF>");

    // Broken framing, and a stream that nobody knows: an answer only.
    socket_pair_t other = open_remote(peer_stream + 4);
    push(peer_stream + 4, end_of_stream);
    push(peer_stream + 4, "x");
    EXPECT_TRUE(is_ended(peer_stream + 4));
    EXPECT_EQ(context->remote_streams.at(peer_stream + 4)->state, detail::STATE_OPEN);
    push(peer_stream + 8, end_of_stream, true);
    EXPECT_TRUE(is_ended(peer_stream + 8));
}

TEST_F(tcp_classic, the_rest_of_a_short_write_is_dropped) {
    socket_pair_t sockets = open_remote();
    const std::string big(4 << 20, 'b');
    push(peer_stream, frame(big) + frame("tail"));
    std::string got;
    EXPECT_TRUE(settle_until([&] { return (got += read_all(sockets.theirs)).ends_with("tail"); }));
    EXPECT_LT(got.size(), big.size());
}

TEST_F(tcp_classic, only_a_request_as_first_packet_makes_an_instance) {
    const std::string tag = "\xA4" + std::string("FWD");
    push(peer_stream, frame(tag) + frame("\xA4HSRQ") + frame(tag + "R") + frame(tag + "R\x01"));
    EXPECT_EQ(context->max_remote_stream_id, peer_stream);
    EXPECT_FALSE(is_ended());
    EXPECT_TRUE(tables_empty());

    context->connect_hook = [](uint64_t, sockaddr_storage*) { return -1; };
    push(200, request("SCTP", "127.0.0.1", 9));
    const auto inst = context->remote_streams.at(200);
    EXPECT_EQ(inst->type, detail::TYPE_TCP);
    EXPECT_EQ(inst->target_address, "127.0.0.1");
    EXPECT_EQ(inst->target_port, 9);
}

// Whoever sends through a forward must not be able to open other targets by timing the close.
TEST_F(tcp_classic, data_of_a_closed_instance_is_never_taken_for_a_request) {
    unsigned short port = 0;
    uint64_t local_stream = 0;
    listen_forward(port);
    accept_client(port, local_stream).reset();
    ASSERT_TRUE(settle_until([&] { return context->local_streams.empty(); }));
    open_remote().theirs.reset();
    ASSERT_TRUE(settle_until([&] { return context->remote_streams.empty(); }));
    for (const uint64_t stream_id : {local_stream, peer_stream}) {
        push(stream_id, request("TCP", "127.0.0.1", 80));
        EXPECT_TRUE(context->remote_streams.empty());
    }
}

TEST_F(tcp_classic, running_out_of_descriptors_closes_the_forward) {
    unsigned short port = 0;
    const int fd = listen_forward(port);
    const fd_t client = connect_to(port);
    without_descriptors([&] { loop.fire_io(fd, TLOOP_IO_READ); });
    EXPECT_TRUE(context->forwards.empty());
}

// A hook that gives a descriptor which an instance still holds: the new instance has it.
TEST_F(tcp_classic, a_descriptor_given_twice_has_one_holder) {
    socket_pair_t sockets = open_remote();
    push(peer_stream + 4, request("TCP", "127.0.0.1", 80));
    ASSERT_TRUE(settle_until([&] { return context->pending_remote.empty(); }));
    settle();
    EXPECT_EQ(context->remote_streams.size(), 1u);
    EXPECT_EQ(loop.count(fake::watcher_t::io), 2u);
    push(peer_stream + 4, frame("to the new one"));
    settle();
    EXPECT_EQ(read_all(sockets.theirs), "to the new one");
}

}  // namespace
}  // namespace forward_test
