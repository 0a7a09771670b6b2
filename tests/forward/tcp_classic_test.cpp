// TCP with classic delivery, and the dispatch of packets.
#include <sys/resource.h>

#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using tcp_classic = forward_fixture;
using detail = tandem::advanced_connection_context_t;

const std::string end_of_stream(1, '\0');

TEST_F(tcp_classic, bytes_go_both_ways_and_an_end_of_file_ends_the_stream) {
    unsigned short port = 0;
    uint64_t stream_id = 0;
    listen_forward(port);
    const fd_t client = accept_client(port, stream_id);
    const std::string request_frame = fake::sent(connection, stream_id);
    ASSERT_EQ(send(client, "hello", 5, 0), 5);
    ASSERT_TRUE(settle_until([&] { return fake::sent(connection, stream_id) == request_frame + "\x05hello"; }));
    push(stream_id, frame("world") + frame("!"));
    settle();
    EXPECT_EQ(read_all(client), "world!");
    shutdown(client, SHUT_WR);
    ASSERT_TRUE(settle_until([&] { return context->local_streams.empty(); }));
    EXPECT_TRUE(fake::sent(connection, stream_id).ends_with("\x05hello" + end_of_stream));
    EXPECT_TRUE(fake::stream(connection, stream_id).fin);
    EXPECT_EQ(end_of(client), "EOF");
    EXPECT_TRUE(context->local_instances.empty());
}

TEST_F(tcp_classic, the_end_of_the_stream_discards_what_waits) {
    socket_pair_t sockets = open_remote();
    EXPECT_EQ(context->remote_streams.at(peer_stream)->state, detail::STATE_OPEN);
    push(peer_stream, frame("written"));
    settle();
    push(peer_stream, frame("discarded"), true);
    settle();
    std::string end;
    EXPECT_EQ(read_all(sockets.theirs, &end), "written");
    EXPECT_EQ(end, "EOF");
    EXPECT_TRUE(tables_empty());
}

// An instance that ends its stream with an empty frame reaches the other side as a partial packet.
TEST_F(tcp_classic, an_end_alone_closes_the_instance_and_is_answered) {
    socket_pair_t sockets = open_remote();
    push(peer_stream, end_of_stream, true);
    EXPECT_EQ(context->remote_streams.at(peer_stream)->state, detail::STATE_TO_CLOSE);
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);
    settle();
    EXPECT_TRUE(tables_empty());
    EXPECT_EQ(end_of(sockets.theirs), "EOF");

    // Broken framing, and a stream that nobody knows: an answer only.
    socket_pair_t other = open_remote(peer_stream + 4);
    push(peer_stream + 4, end_of_stream);
    push(peer_stream + 4, "x");
    EXPECT_TRUE(fake::stream(connection, peer_stream + 4).fin);
    EXPECT_EQ(context->remote_streams.at(peer_stream + 4)->state, detail::STATE_OPEN);
    push(peer_stream + 8, end_of_stream, true);
    EXPECT_TRUE(fake::stream(connection, peer_stream + 8).fin);
}

TEST_F(tcp_classic, the_rest_of_a_short_write_is_dropped) {
    socket_pair_t sockets = open_remote();
    const std::string big(4 << 20, 'b');
    push(peer_stream, frame(big) + frame("tail"));
    settle();
    std::string got;
    for (int i = 0; i < 1000 && !got.ends_with("tail"); ++i) {
        got += read_all(sockets.theirs);
        settle();
    }
    EXPECT_TRUE(got.ends_with("tail"));
    EXPECT_LT(got.size(), big.size());
}

TEST_F(tcp_classic, only_a_request_as_first_packet_makes_an_instance) {
    push(peer_stream, frame("\xA4"
                            "FWD") +
                          frame("\xA4HSRQ") +
                          frame("\xA4"
                                "FWDR") +
                          frame("\xA4"
                                "FWDR\x01"));
    EXPECT_EQ(context->max_remote_stream_id, peer_stream);
    EXPECT_FALSE(fake::stream(connection, peer_stream).fin);
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
    listen_forward(port);
    const fd_t client = connect_to(port);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    loop.fire_io(context->forwards.begin()->first, TLOOP_IO_READ);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(context->forwards.empty());
}

// A hook that gives a descriptor which an instance still holds: the new instance has it.
TEST_F(tcp_classic, a_descriptor_given_twice_has_one_holder) {
    socket_pair_t sockets = open_remote();
    const int fd = context->remote_instances.begin()->first;
    push(peer_stream + 4, request("TCP", "127.0.0.1", 80));
    ASSERT_TRUE(settle_until([&] { return context->pending_remote.empty(); }));
    settle();
    EXPECT_EQ(context->remote_streams.size(), 1u);
    EXPECT_EQ(loop.count(fake::watcher_t::io), 2u);
    EXPECT_TRUE(is_open(fd));
    push(peer_stream + 4, frame("to the new one"));
    settle();
    EXPECT_EQ(read_all(sockets.theirs), "to the new one");
}

}  // namespace
}  // namespace forward_test
