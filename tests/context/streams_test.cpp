#include "tests/context/fixture.h"

namespace {

using tandem::packet_t;

std::shared_ptr<packet_t> reply(std::string body, bool fin) {
    auto packet = std::make_shared<packet_t>(0);
    if (!body.empty()) packet->append_buf(reinterpret_cast<uint8_t*>(body.data()), static_cast<uint32_t>(body.size()));
    packet->fin = fin ? 1 : 0;
    return packet;
}

// The beginning of a frame whose rest is missing.
const std::string cut = frame("cut.").substr(0, 4);

class streams : public linked {
  protected:
    void SetUp() override { connect(); }
    strings delivered(uint64_t stream_id, const std::string& bytes, bool fin = false) {
        fake::deliver(connection_, stream_id, bytes, fin);
        return probe_->take_log();
    }
};

TEST_F(linked, dispatches_nothing_before_the_peers_marker) {
    establish();
    probe_->log_control = true;
    probe_->take_log();
    fake::deliver(connection_, 5, frame("early"));
    fake::deliver(connection_, 1, frame("\xA2T") + frame("TC"));
    fake::deliver(connection_, 9, cut, true);
    EXPECT_FALSE(probe_->connection_context_t::link_ready());
    // Longer than the marker is a marker too; what follows in the same delivery is dispatched.
    fake::deliver(connection_, 1, frame("\xA2TC!") + frame("one"));
    EXPECT_TRUE(probe_->connection_context_t::link_ready());
    EXPECT_EQ(probe_->take_log(), strings{"control 1 [one] +0"});
}

TEST_F(streams, takes_packets_apart_however_they_come) {
    probe_->log_control = true;
    EXPECT_EQ(delivered(5, frame("a") + frame("bb") + frame("ccc") + cut.substr(0, 2)),
              (strings{"stream 5 [a] +9", "stream 5 [bb] +6", "stream 5 [ccc] +2"}));
    EXPECT_EQ(probe_->pending.size(), 1u);
    EXPECT_EQ(delivered(9, frame("other")), strings{"stream 9 [other] +0"});
    EXPECT_EQ(delivered(5, "u"), strings{});
    EXPECT_EQ(delivered(5, "t." + frame("e")), (strings{"stream 5 [cut.] +2", "stream 5 [e] +0"}));
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_EQ(delivered(0, frame("own")), strings{"control 0 [own] +0"});
    EXPECT_EQ(delivered(1, frame("peer")), strings{"control 1 [peer] +0"});
}

TEST_F(streams, tells_the_end_with_every_packet_and_how_much_follows) {
    EXPECT_EQ(delivered(5, frame("a") + frame("b"), true), (strings{"stream 5 [a] fin +2", "stream 5 [b] fin +0"}));
    EXPECT_EQ(delivered(9, frame("a") + cut, true), (strings{"stream 9 [a] fin +4", "stream 9 [cut] skip fin +0"}));
    EXPECT_EQ(delivered(13, cut), strings{});
    EXPECT_EQ(delivered(13, "", true), strings{"stream 13 [cut] skip fin +0"});
    EXPECT_EQ(delivered(17, "", true), strings{"stream 17 [] skip fin +0"});
    EXPECT_EQ(delivered(21, end_of_stream, true), strings{"stream 21 [] skip fin +0"});
    EXPECT_EQ(delivered(25, ""), strings{});
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_EQ(connection_->deletions, 0);
}

TEST_F(streams, reports_bytes_that_cannot_be_placed_and_starts_afresh) {
    EXPECT_EQ(delivered(5, std::string("\0lost", 5)), strings{"stream 5 [] skip +0"});
    EXPECT_EQ(delivered(5, std::string(1, '\0')), strings{});
    EXPECT_EQ(delivered(5, frame("lost")), strings{"stream 5 [] skip +0"});
    EXPECT_EQ(delivered(5, frame("ok")), strings{"stream 5 [ok] +0"});
    EXPECT_EQ(delivered(5, std::string(8, '\xFF') + "huge"), strings{"stream 5 [] skip +0"});
    probe_->max_frame_length = 4;
    EXPECT_EQ(delivered(5, frame("four")), strings{"stream 5 [four] +0"});
    EXPECT_EQ(delivered(5, frame("fiver")), strings{"stream 5 [] skip +0"});
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
    fake::deliver(connection_, 9, cut, true);
    EXPECT_EQ(fake::sent(connection_, 9), end_of_stream);
    EXPECT_TRUE(fake::stream(connection_, 9).fin);
}

TEST_F(streams, closes_the_connection_at_the_end_of_either_control_stream) {
    fake::deliver(connection_, 9, cut);
    probe_->log_control = true;
    fake::deliver(connection_, 0, frame("last"), true);
    EXPECT_EQ(probe_->take_log(), strings{"control 0 [last] fin +0"});
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_EQ(connection_->deletions, 1);
    start_over();
    fake::deliver(connection_, peer_control_, "", true);
    EXPECT_EQ(connection_->deletions, 1);
}

TEST_F(streams, sends_only_with_a_connection_and_a_stream) {
    packet_t packet(0), other(0);
    packet.pack_nil();
    other.pack_nil();
    EXPECT_EQ(probe_->send_packet(4, static_cast<packet_t*>(nullptr), 0), -1);
    EXPECT_EQ(probe_->send_packet(4, std::shared_ptr<packet_t>(), 0), -1);
    EXPECT_EQ(probe_->send_packet(probe_t::no_stream, packet, 0), -1);
    EXPECT_EQ(probe_->send_packet(4, &packet, 0), 2);
    EXPECT_EQ(probe_->get_next_local_stream_id(true), 6u);
    probe_t unbound;
    EXPECT_EQ(unbound.send_packet(4, other, 0), -1);
    EXPECT_EQ(unbound.get_next_local_stream_id(false), probe_t::no_stream);
    // Bound to another connection it forgets partial packets and the peer's marker.
    fake::deliver(connection_, 5, cut);
    fake::connection_t* next = fake::connect("other");
    probe_->reset(fake::instance(), next, loop_.handle(), 1, "other");
    EXPECT_TRUE(probe_->pending.empty());
    EXPECT_FALSE(probe_->connection_context_t::link_ready());
    EXPECT_EQ(probe_->connection, next);
    EXPECT_GE(probe_->time_span(), 0);
    EXPECT_LT(probe_->time_span(), 60'000'000);
}

}  // namespace
