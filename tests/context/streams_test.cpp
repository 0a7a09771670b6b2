#include "tests/context/fixture.h"

namespace {

using strings = std::vector<std::string>;
using tandem::packet_t;

std::shared_ptr<packet_t> reply(const std::string& body, bool fin) {
    auto packet = std::make_shared<packet_t>(0);
    for (const char byte : body) {
        auto one = static_cast<uint8_t>(byte);
        packet->append_buf(&one, 1);
    }
    packet->fin = fin ? 1 : 0;
    return packet;
}

class streams : public linked {
  protected:
    void SetUp() override { connect(); }
};

TEST_F(linked, dispatches_nothing_before_the_peers_marker) {
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    connection_ = fake::connect("tndm");
    fake::establish(connection_);
    probe_->log_control = true;
    probe_->take_log();
    fake::deliver(connection_, 5, frame("early"));
    fake::deliver(connection_, 1, frame("\xA2T") + frame("TC"));
    fake::deliver(connection_, 9,
                  "\x05"
                  "cut",
                  true);
    EXPECT_FALSE(probe_->connection_context_t::link_ready());
    // Longer than the marker is a marker too; what follows in the same delivery is dispatched.
    fake::deliver(connection_, 1, frame("\xA2TC!") + frame("one"));
    EXPECT_TRUE(probe_->connection_context_t::link_ready());
    EXPECT_EQ(probe_->take_log(), strings{"control 1 [one] +0"});
}

TEST_F(streams, takes_packets_apart_however_they_come) {
    probe_->log_control = true;
    fake::deliver(connection_, 5,
                  frame("a") + frame("bb") + frame("ccc") +
                      "\x04"
                      "d");
    EXPECT_EQ(probe_->take_log(), (strings{"stream 5 [a] +9", "stream 5 [bb] +6", "stream 5 [ccc] +2"}));
    EXPECT_EQ(probe_->pending.size(), 1u);
    fake::deliver(connection_, 9, frame("other"));
    fake::deliver(connection_, 5, "d");
    fake::deliver(connection_, 5, "dd" + frame("e"));
    EXPECT_EQ(probe_->take_log(), (strings{"stream 9 [other] +0", "stream 5 [dddd] +2", "stream 5 [e] +0"}));
    EXPECT_TRUE(probe_->pending.empty());
    fake::deliver(connection_, 0, frame("own"));
    fake::deliver(connection_, 1, frame("peer"));
    EXPECT_EQ(probe_->take_log(), (strings{"control 0 [own] +0", "control 1 [peer] +0"}));
}

TEST_F(streams, tells_the_end_with_every_packet_and_how_much_follows) {
    fake::deliver(connection_, 5, frame("a") + frame("b"), true);
    EXPECT_EQ(probe_->take_log(), (strings{"stream 5 [a] fin +2", "stream 5 [b] fin +0"}));
    fake::deliver(connection_, 9,
                  frame("a") +
                      "\x04"
                      "b",
                  true);
    EXPECT_EQ(probe_->take_log(), (strings{"stream 9 [a] fin +2", "stream 9 [b] skip fin +0"}));
    fake::deliver(connection_, 13,
                  "\x04"
                  "cc");
    fake::deliver(connection_, 13, "", true);
    fake::deliver(connection_, 17, "", true);
    fake::deliver(connection_, 21, std::string(1, '\0'), true);
    EXPECT_EQ(probe_->take_log(),
              (strings{"stream 13 [cc] skip fin +0", "stream 17 [] skip fin +0", "stream 21 [] skip fin +0"}));
    fake::deliver(connection_, 25, "");
    EXPECT_TRUE(probe_->take_log().empty());
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_EQ(connection_->deletions, 0);
}

TEST_F(streams, reports_bytes_that_cannot_be_placed_and_starts_afresh) {
    fake::deliver(connection_, 5, std::string("\0lost", 5));
    EXPECT_EQ(probe_->take_log(), strings{"stream 5 [] skip +0"});
    fake::deliver(connection_, 5, std::string(1, '\0'));
    EXPECT_TRUE(probe_->take_log().empty());
    fake::deliver(connection_, 5, frame("lost"));
    fake::deliver(connection_, 5, frame("ok"));
    EXPECT_EQ(probe_->take_log(), (strings{"stream 5 [] skip +0", "stream 5 [ok] +0"}));
    fake::deliver(connection_, 5, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFFhuge");
    probe_->max_frame_length = 4;
    fake::deliver(connection_, 5, frame("four"));
    fake::deliver(connection_, 5, frame("fiver"));
    EXPECT_EQ(probe_->take_log(), (strings{"stream 5 [] skip +0", "stream 5 [four] +0", "stream 5 [] skip +0"}));
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_EQ(connection_->deletions, 0);
}

TEST_F(streams, sends_replies_and_drops_the_rest_behind_an_ending_one) {
    int packets = 0;
    probe_->on_packet = [&] { return reply("re", ++packets == 2); };
    fake::deliver(connection_, 5, frame("a") + frame("b") + frame("c"));
    EXPECT_EQ(fake::sent(connection_, 5), "\x02re\x02re");
    EXPECT_TRUE(fake::stream(connection_, 5).fin);
    EXPECT_EQ(packets, 2);
    // An ending reply that could not be sent ends nothing.
    packets = 1;
    fake::deliver(connection_, 5, frame("d") + frame("e"));
    EXPECT_EQ(packets, 3);
    probe_->on_packet = [&] { return reply("", true); };
    fake::deliver(connection_, 9,
                  "\x04"
                  "cut",
                  true);
    EXPECT_EQ(fake::sent(connection_, 9), std::string(1, '\0'));
    EXPECT_TRUE(fake::stream(connection_, 9).fin);
}

TEST_F(streams, closes_the_connection_at_the_end_of_either_control_stream) {
    const std::string message =
        text("[push_stream_data:536]Connection [%p] - Disconnected! The control-stream is FIN.\n",
             static_cast<void*>(connection_));
    fake::deliver(connection_, 9,
                  "\x04"
                  "cut");
    probe_->log_control = true;
    EXPECT_EQ(printed([&] { fake::deliver(connection_, 0, frame("last"), true); }), message);
    EXPECT_EQ(probe_->take_log(), strings{"control 0 [last] fin +0"});
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_EQ(connection_->deletions, 1);
    EXPECT_EQ(printed([&] { fake::deliver(connection_, peer_control_, "", true); }), message);
}

TEST_F(streams, sends_only_with_a_connection_and_a_stream) {
    packet_t packet(0);
    packet.pack_nil();
    EXPECT_EQ(probe_->send_packet(4, static_cast<packet_t*>(nullptr), 0), -1);
    EXPECT_EQ(probe_->send_packet(4, std::shared_ptr<packet_t>(), 0), -1);
    EXPECT_EQ(probe_->send_packet(tandem::connection_context_t::no_stream, packet, 0), -1);
    EXPECT_EQ(probe_->send_packet(4, &packet, 0), 2);
    EXPECT_EQ(probe_->get_next_local_stream_id(true), 6u);
    probe_t unbound;
    packet_t other(0);
    other.pack_nil();
    EXPECT_EQ(unbound.send_packet(4, other, 0), -1);
    EXPECT_EQ(unbound.get_next_local_stream_id(false), tandem::connection_context_t::no_stream);
}

TEST_F(streams, forgets_partial_packets_and_the_peers_marker_when_bound_again) {
    fake::deliver(connection_, 5,
                  "\x04"
                  "cut");
    fake::connection_t* next = fake::connect("other");
    probe_->reset(fake::instance(), next, loop_.handle(), 1, "other");
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_FALSE(probe_->connection_context_t::link_ready());
    EXPECT_EQ(probe_->connection, next);
    EXPECT_GE(probe_->time_span(), 0);
    EXPECT_LT(probe_->time_span(), 60'000'000);
}

}  // namespace
