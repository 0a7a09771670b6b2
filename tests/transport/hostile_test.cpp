// Whatever comes to the server's socket: a stranger is not heard, and a peer that breaks the rules ends its own
// connection only. All the while another connection carries data through the same server.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>

#include "platform/tndm/core/wire.h"
#include "tests/transport/fixture.h"
#include "tests/transport/quic_peer.h"

namespace transport_test {
namespace {

namespace control = tndm::control;
namespace wire = tndm::core::wire;
using datagram_t = network::datagram_t;

class hostile : public pair_test {
  protected:
    void SetUp() override {
        const auto tap = [this](way, const datagram_t& datagram) {
            const std::lock_guard lock(mutex_);
            if (seen_.size() < 400) {
                seen_.push_back(datagram);
            }
            return true;
        };
        start_over(two_paths, {.mbit = 50}, {}, tap);
        content_ = random_content(6'000'000 / scale, 8);
        stream_ = side::send(at_client, content_, true);
        carried_by_ = at_server;
    }
    void expect_intact() { server->expect_content(carried_by_, stream_, content_); }
    // The honest connection has not noticed anything.
    void TearDown() override {
        expect_intact();
        EXPECT_EQ(client->live(), 1U);
        EXPECT_EQ(client->look([&] { return client->established.size(); }), 1U);
        exchange(50'000, 1);
        reset();
    }
    // A client's first packets, as they went by.
    std::vector<datagram_t> firsts() {
        const std::lock_guard lock(mutex_);
        auto found = seen_;
        std::erase_if(found, [](const datagram_t& each) { return each.size() < 1200 || (each[0] & 0xf0) != 0xc0; });
        return found;
    }
    // What the server answers to a stranger who sends these; nothing within a second: nothing.
    datagram_t answer_to(const std::vector<datagram_t>& sent) {
        const int fd = open_udp(server->port());
        for (const datagram_t& each : sent) {
            send(fd, each.data(), each.size(), 0);
        }
        datagram_t answer(2048);
        pollfd watched{fd, POLLIN, 0};
        poll(&watched, 1, 1000);
        const ssize_t got = recv(fd, answer.data(), answer.size(), 0);
        answer.resize(got < 0 ? 0 : static_cast<size_t>(got));
        close(fd);
        return answer;
    }
    // The connection that the server has for the hostile peer; it must be over soon.
    void expect_only_the_peer_ended(quic_peer& peer) {
        EXPECT_TRUE(peer.closed(5s));
        EXPECT_TRUE(eventually([&] { return server->live() == 1; })) << "the server still takes the peer for connected";
        EXPECT_FALSE(server->look([&] { return server->connections[at_server].over; }));
    }
    template <typename T>
    static datagram_t frame(const T& value) {
        const auto head = wire::header::of(value);
        return {head.bytes().begin(), head.bytes().end()};
    }
    // The server's connection of the peer that has just joined.
    void* of_peer() {
        const size_t count = ++connections_;
        EXPECT_TRUE(server->wait([&] { return server->established.size() == count; }));
        return server->look([&] { return server->established.back(); });
    }

  private:
    std::mutex mutex_;
    std::vector<datagram_t> seen_;
    bytes_t content_;
    uint64_t stream_ = 0;
    size_t connections_ = 1;
    void* carried_by_ = nullptr;
};

datagram_t long_header(uint32_t version, size_t size, uint32_t seed) {
    datagram_t made = random_content(size, seed);
    made[0] = 0xc3;
    for (int i = 0; i < 4; ++i) {
        made[static_cast<size_t>(i) + 1] = static_cast<uint8_t>(version >> (24 - 8 * i));
    }
    made[5] = 8;   // destination id
    made[14] = 8;  // source id
    return made;
}

TEST_F(hostile, an_unknown_version_is_answered_with_ours) {
    const datagram_t question = long_header(0x1a2a3a4a, 1200, 2);
    // The first one is too short to be worth an answer.
    const datagram_t answer = answer_to({long_header(0x1a2a3a4a, 900, 1), question});
    ASSERT_EQ(answer.size(), 1U + 4 + 1 + 8 + 1 + 8 + 4);
    EXPECT_EQ(datagram_t(answer.begin() + 1, answer.begin() + 5), datagram_t(4, 0));
    EXPECT_TRUE(std::equal(answer.begin() + 6, answer.begin() + 14, question.begin() + 15)) << "ids change places";
    EXPECT_TRUE(std::equal(answer.begin() + 15, answer.begin() + 23, question.begin() + 6));
    EXPECT_EQ(datagram_t(answer.end() - 4, answer.end()), (datagram_t{0, 0, 0, 1}));
}

// Half-open handshakes from addresses that never answer. Above 64 of them a client must first show that it gets what is
// sent to it; then it is served as ever.
TEST_F(hostile, a_flood_of_first_packets_does_not_keep_clients_out) {
    std::vector<std::unique_ptr<quic_peer>> half_open;
    for (int i = 0; i < 100; ++i) {
        half_open.push_back(std::make_unique<quic_peer>(server->port()));
        half_open.back()->idle(milliseconds(0));  // its first packet, and no more
    }
    // Asked for by hand: the answer to a first packet is a Retry now.
    datagram_t first = firsts().at(0);
    first[6] ^= 0xff;  // another connection; a Retry is given before anything is decrypted
    ASSERT_TRUE(eventually([&] {
        const datagram_t answer = answer_to({first});
        return !answer.empty() && (answer[0] & 0xf0) == 0xf0;
    })) << "no Retry";
    client_side late;
    late.run(server->port());
    EXPECT_NE(late.connected(), nullptr);
    // Those that were asked to show their address can do so.
    EXPECT_TRUE(half_open.back()->handshake());
}

// --- peers that complete the handshake and then break the rules ---

TEST_F(hostile, nonsense_on_the_control_stream_ends_its_own_connection) {
    const std::vector<datagram_t> nonsense = {
        random_content(600, 1),                              // a length above the bound
        {0, 0},                                              // an empty message
        {0, 1, 99},                                          // an unknown kind
        {0, 3, 1, 1, 200},                                   // a hello cut short
        {0, 2, 5, 0},                                        // a ready with something behind it
        control::encode(control::joined{}),                  // what only a server says
        control::encode(control::hello{"again", {}, 3600}),  // hello twice
        control::encode(control::join{"again", {}, {}}),     // join in a connection of its own
        datagram_t(4096, 0xff),
    };
    for (size_t i = 0; i < nonsense.size(); ++i) {
        for (const bool joined : {false, true}) {
            SCOPED_TRACE("nonsense " + std::to_string(i) + (joined ? " after" : " instead of") + " hello");
            const bool first_word = i >= 6 && i <= 7;
            if (first_word && !joined) {
                continue;
            }
            quic_peer peer(server->port());
            ASSERT_TRUE(peer.handshake());
            if (joined) {
                ASSERT_TRUE(peer.join_new(3600));
            }
            peer.say(nonsense[i]);
            expect_only_the_peer_ended(peer);
        }
    }
}

TEST_F(hostile, a_join_needs_the_secret_of_its_own_connection) {
    quic_peer owner(server->port());
    const auto welcome = owner.join_new();
    ASSERT_TRUE(welcome);
    owner.idle(1ms);
    of_peer();
    const auto join = [&](const control::bundle_id& id, const std::function<tndm::digest_t(quic_peer&)>& proof) {
        quic_peer peer(server->port());
        EXPECT_TRUE(peer.handshake());
        peer.say(control::join{"other", id, proof(peer)});
        const auto answer = peer.next_message(5s);
        EXPECT_EQ(peer.closed(answer ? 0ms : 2s), !answer);
        EXPECT_EQ(peer.peer_error(), answer ? 0U : 3U);
        return answer.has_value();
    };
    const auto binding = [](quic_peer& peer) {
        std::array<uint8_t, 32> bytes{};
        EXPECT_TRUE(peer.tls().exporter(control::join_exporter_label, {}, bytes));
        return bytes;
    };
    const auto right = [&](quic_peer& peer) { return tndm::join_proof(welcome->join_secret, binding(peer)); };
    control::bundle_id unknown = welcome->id;
    unknown[0] ^= 1;
    EXPECT_FALSE(join(unknown, right));
    EXPECT_FALSE(join(welcome->id, [](quic_peer&) { return tndm::digest_t{}; }));
    EXPECT_FALSE(
        join(welcome->id, [&](quic_peer& peer) { return tndm::join_proof(tndm::secret<32>(), binding(peer)); }));
    // A proof that was right on another TLS session.
    EXPECT_FALSE(join(welcome->id, [&](quic_peer&) { return right(owner); }));
    // The honest connection's id is no secret (a proof is), so it is tried too.
    control::bundle_id honest{};
    server->look([&] {
        const auto& id = server->connections[at_server].id;
        std::copy(id.begin(), id.end(), honest.begin());
    });
    EXPECT_FALSE(join(honest, right));
    EXPECT_EQ(server->carried_paths(at_server).size(), 2U);
    EXPECT_TRUE(join(welcome->id, right)) << "the one that is right";
    EXPECT_EQ(server->look([&] { return server->established.size(); }), 2U);
}

TEST_F(hostile, datagrams_that_break_the_rules_end_their_own_connection) {
    const datagram_t hello = frame(wire::window{wire::varint_max});
    const datagram_t beyond = frame(wire::chunk{0, 20'000'000, true, std::nullopt, {}});
    for (const auto& [joined, datagram] :
         std::vector<std::pair<bool, datagram_t>>{{false, hello}, {true, {0x77, 1, 2, 3}}, {true, beyond}}) {
        SCOPED_TRACE(static_cast<int>(datagram[0]));
        quic_peer peer(server->port());
        ASSERT_TRUE(joined ? peer.join_new(3600).has_value() : peer.handshake());
        peer.datagram(datagram);
        expect_only_the_peer_ended(peer);
    }
    // What is allowed, however silly, does nothing.
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.join_new());
    for (const auto& datagram : {hello, frame(wire::stream_window{0, 0}), datagram_t{0, 1, 2, 3}}) {
        peer.datagram(datagram);
    }
    EXPECT_FALSE(peer.closed(300ms));
}

// A peer that takes no datagrams, or only tiny ones, cannot be spoken to.
TEST_F(hostile, a_peer_that_takes_no_datagrams_harms_only_itself) {
    for (const uint64_t size : {0U, 40U}) {
        quic_peer peer(server->port(), size);
        ASSERT_TRUE(peer.join_new());
        peer.idle(20ms);
        side::send(of_peer(), random_content(100'000, 1), false);
        peer.idle(300ms);
    }
}

// A client may say that any lane is gone; only lanes of its own connection are.
TEST_F(hostile, a_stranger_cannot_take_lanes_away) {
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.join_new());
    for (uint32_t number = 0; number < 1000; ++number) {
        peer.say(control::gone{number});
    }
    peer.idle(300ms);
    EXPECT_EQ(server->paths(at_server).size(), two_paths.size());
    expect_intact();
}

// It says hello and then nothing: nothing may be sent on such a lane, so nothing else would show that its path has
// died. The server, which keeps its connections alive, must not spin until it hears more, and gives the lane up.
TEST_F(hostile, a_peer_that_never_gets_ready_costs_no_time_and_is_given_up) {
    expect_intact();
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.join_new(1, true));
    void* const connection = of_peer();
    ASSERT_EQ(tndm_enable_keep_alive(connection, nullptr, 10, 0), 0);
    client->destroy();
    ASSERT_TRUE(server->disconnected(at_server));
    peer.idle(50ms);
    const std::clock_t before = std::clock();  // of the process
    peer.idle(500ms);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5) << "half a second of nothing";
    EXPECT_TRUE(server->disconnected(connection)) << "after five seconds, and those that it outlives its last lane";
    // For the check that another connection is served.
    start(two_paths);
}

}  // namespace
}  // namespace transport_test
