// Whatever comes to the server's socket: a stranger is not heard, and a peer that breaks the rules ends its own
// connection only. All the while another connection carries data through the same server.
#include <gnutls/crypto.h>
#include <sys/socket.h>

#include <random>

#include "platform/tndm/core/wire.h"
#include "tests/transport/fixture.h"
#include "tests/transport/network.h"
#include "tests/transport/quic_peer.h"

namespace transport_test {
namespace {

namespace control = tndm::control;
namespace wire = tndm::core::wire;
using datagram_t = network::datagram_t;

class hostile : public pair_test {
  protected:
    void SetUp() override {
        server = std::make_unique<server_side>();
        ASSERT_EQ(server->start(), 0);
        net = std::make_unique<network>(server->port(), [this](way, const std::string&, const datagram_t& datagram) {
            const std::lock_guard lock(mutex_);
            if (seen_.size() < 400) {
                seen_.push_back(datagram);
            }
            return true;
        });
        net->set([](conditions& c) { c.mbit = 50; });
        start(two_paths, {}, {}, net->port());
        content_ = random_content(6'000'000 / scale, 8);
        stream_ = side::send(at_client, content_, true);
        carried_by_ = at_server;
    }
    void expect_intact() {
        ASSERT_TRUE(server->received(carried_by_, stream_, content_.size(), true));
        EXPECT_TRUE(server->content(carried_by_, stream_) == content_);
    }
    // The honest connection has not noticed anything.
    void TearDown() override {
        expect_intact();
        EXPECT_EQ(client->live(), 1U);
        EXPECT_EQ(client->look([&] { return client->established.size(); }), 1U);
        exchange(50'000, 1);
        client.reset();
        server.reset();
        net.reset();
    }
    std::vector<datagram_t> seen() {
        const std::lock_guard lock(mutex_);
        return seen_;
    }
    // The connection that the server has for the hostile peer; it must be over soon.
    void expect_only_the_peer_ended(quic_peer& peer) {
        EXPECT_TRUE(peer.closed(5s));
        ASSERT_TRUE(server->wait(
            [&] {
                for (void* each : server->established) {
                    if (each != at_server && !server->connections[each].over) {
                        return false;
                    }
                }
                return true;
            },
            5s))
            << "the server still takes the peer for connected";
        EXPECT_FALSE(server->look([&] { return server->connections[at_server].over; }));
    }
    template <typename T>
    static datagram_t frame(const T& value) {
        const auto head = wire::header::of(value);
        return {head.bytes().begin(), head.bytes().end()};
    }
    static datagram_t chunk(uint64_t stream, uint64_t offset, bool last, std::string_view bytes,
                            std::optional<wire::preface> first = std::nullopt) {
        auto made = frame(wire::chunk{stream, offset, last, first, {}});
        made.insert(made.end(), bytes.begin(), bytes.end());
        return made;
    }

    std::unique_ptr<network> net;

  private:
    std::mutex mutex_;
    std::vector<datagram_t> seen_;
    bytes_t content_;
    uint64_t stream_ = 0;
    void* carried_by_ = nullptr;
};

TEST_F(hostile, noise_and_broken_copies_are_not_heard) {
    ASSERT_TRUE(server->wait([&] { return !server->connections[at_server].streams.empty(); }));
    const auto kept = seen();
    ASSERT_FALSE(kept.empty());
    std::mt19937 random(3);
    for (int i = 0; i < 6000; ++i) {
        datagram_t forged = kept[random() % kept.size()];
        switch (random() % 5) {
            case 0:
                for (int bit = 0; bit < 3; ++bit) {
                    const size_t reach = random() % 2 == 0 ? std::min<size_t>(forged.size(), 40) : forged.size();
                    forged[random() % reach] ^= static_cast<uint8_t>(1U << (random() % 8));
                }
                break;
            case 1:
                forged.resize(random() % (forged.size() + 1));
                break;
            case 2:
                forged.resize(forged.size() + random() % 300, 0xff);
                break;
            case 3:
                break;  // an old one, whole
            default:
                forged = random_content(random() % 1500, static_cast<uint32_t>(i));
                if (!forged.empty() && random() % 2 == 0) {
                    forged[0] |= 0xc0;
                }
        }
        net->inject(forged);
    }
}

class raw_socket {
  public:
    explicit raw_socket(uint16_t port) : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
        const timeval limit{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~raw_socket() { tndm_close_socket(fd_); }
    raw_socket(const raw_socket&) = delete;
    raw_socket& operator=(const raw_socket&) = delete;
    void send(const datagram_t& datagram) { ::send(fd_, datagram.data(), datagram.size(), 0); }
    datagram_t receive() {
        datagram_t answer(2048);
        const ssize_t got = recv(fd_, answer.data(), answer.size(), 0);
        answer.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return answer;
    }

  private:
    int fd_;
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
    raw_socket stranger(server->port());
    stranger.send(long_header(0x1a2a3a4a, 900, 1));  // too short to be worth an answer
    const datagram_t question = long_header(0x1a2a3a4a, 1200, 2);
    stranger.send(question);
    const datagram_t answer = stranger.receive();
    ASSERT_EQ(answer.size(), 1U + 4 + 1 + 8 + 1 + 8 + 4);
    EXPECT_EQ(datagram_t(answer.begin() + 1, answer.begin() + 5), datagram_t(4, 0));
    EXPECT_TRUE(std::equal(answer.begin() + 6, answer.begin() + 14, question.begin() + 15)) << "ids change places";
    EXPECT_TRUE(std::equal(answer.begin() + 15, answer.begin() + 23, question.begin() + 6));
    EXPECT_EQ(datagram_t(answer.end() - 4, answer.end()), (datagram_t{0, 0, 0, 1}));
}

// First packets with which nothing can be done.
TEST_F(hostile, truncated_and_meaningless_first_packets_are_dropped) {
    std::vector<datagram_t> firsts;
    for (const auto& datagram : seen()) {
        if ((datagram[0] & 0xf0) == 0xc0) {
            firsts.push_back(datagram);
        }
    }
    ASSERT_FALSE(firsts.empty());
    for (const auto& first : firsts) {
        for (size_t size = 0; size < first.size(); size += 1 + size / 16) {
            net->inject({first.begin(), first.begin() + static_cast<ptrdiff_t>(size)});
        }
    }
    for (uint32_t i = 0; i < 200; ++i) {
        net->inject(long_header(1, 1200, i));
    }
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
    datagram_t first;
    for (const auto& datagram : seen()) {
        if (first.empty() && datagram.size() >= 1200 && (datagram[0] & 0xf0) == 0xc0) {
            first = datagram;
        }
    }
    ASSERT_FALSE(first.empty());
    first[6] ^= 0xff;  // another connection; a Retry is given before anything is decrypted
    raw_socket stranger(server->port());
    ASSERT_TRUE(eventually([&] {
        stranger.send(first);
        const datagram_t answer = stranger.receive();
        return !answer.empty() && (answer[0] & 0xf0) == 0xf0;
    })) << "no Retry";
    client_side late;
    ASSERT_EQ(late.start(server->port()), 0);
    ASSERT_EQ(late.add("127.0.0.2"), 0);
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
                ASSERT_TRUE(peer.join_new("hostile", 3600));
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
    const auto bundles = server->look([&] { return server->established.size(); });
    const auto join = [&](const control::bundle_id& id, const std::function<tndm::digest_t(quic_peer&)>& proof) {
        quic_peer peer(server->port());
        EXPECT_TRUE(peer.handshake());
        peer.say(control::join{"other", id, proof(peer)});
        const auto answer = peer.next_message(2s);
        EXPECT_EQ(peer.closed(answer ? 0ms : 2s), !answer);
        EXPECT_EQ(peer.error_code(), answer ? 0U : 3U);
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
    EXPECT_EQ(server->look([&] { return server->established.size(); }), bundles);
}

TEST_F(hostile, datagrams_before_joining_end_the_subflow) {
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.handshake());
    peer.datagram(chunk(0, 0, false, "early"));
    expect_only_the_peer_ended(peer);
}

TEST_F(hostile, forged_frames_end_their_own_connection) {
    constexpr uint64_t most = wire::varint_max;
    const std::vector<std::pair<const char*, std::vector<datagram_t>>> forged = {
        {"unknown kind", {{0x77, 1, 2, 3}}},
        {"cut short", {{0x08, 0xc0, 0}}},
        {"something behind a window", {{0x01, 0x05, 0x05}}},
        {"credit of an unknown kind", {frame(wire::streams{2, 5})}},
        {"behind every window", {chunk(0, most, true, "")}},
        {"wraps", {chunk(0, most, false, "x")}},
        {"more than the stream may", {chunk(0, 20'000'000, false, "x")}},
        {"more streams than granted", {chunk(4 * 1000, 0, false, "x")}},
        {"a stream of the server's", {chunk(1, 0, false, "x")}},
        {"two ends", {chunk(0, 0, true, "abc"), chunk(0, 0, true, "ab")}},
        {"behind the end", {chunk(0, 0, true, "abc"), chunk(0, 3, false, "d")}},
        {"two first streams",
         {chunk(4, 0, false, "x", wire::preface{0, 9}), chunk(8, 0, false, "x", wire::preface{0, 8})}},
    };
    for (const auto& [name, datagrams] : forged) {
        SCOPED_TRACE(name);
        quic_peer peer(server->port());
        ASSERT_TRUE(peer.join_new("hostile", 3600));
        for (const auto& datagram : datagrams) {
            peer.datagram(datagram);
        }
        expect_only_the_peer_ended(peer);
    }
    // What is allowed, however silly, does nothing.
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.join_new());
    for (const auto& datagram :
         {frame(wire::window{most}), frame(wire::window{0}), frame(wire::streams{1, most}), frame(wire::streams{0, 0}),
          frame(wire::stream_window{most, most}), frame(wire::stream_window{0, 0}), datagram_t{0, 1, 2, 3}}) {
        peer.datagram(datagram);
    }
    EXPECT_FALSE(peer.closed(300ms));
}

// More holes than anybody needs, and a first stream that never comes: what they hold is bounded by the windows.
TEST_F(hostile, a_hoarder_is_bounded_by_its_windows) {
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.join_new());
    const std::string byte = "x";
    for (uint64_t i = 0; i < 20'000 / scale; ++i) {
        peer.datagram(chunk(4 * (1 + i % 50), 2 + 3 * (i / 50), false, byte, wire::preface{4 * 99, 10}));
    }
    EXPECT_FALSE(peer.closed(500ms));
    server->look([&] {
        for (void* each : server->established) {
            if (each != at_server) {
                EXPECT_TRUE(server->connections[each].order.empty());
            }
        }
    });
}

// A peer that takes no datagrams, or only tiny ones, cannot be spoken to.
TEST_F(hostile, a_peer_that_takes_no_datagrams_harms_only_itself) {
    server->on_established = {};
    for (const uint64_t size : {0U, 40U}) {
        quic_peer::options how;
        how.datagram_size = size;
        quic_peer peer(server->port(), how);
        ASSERT_TRUE(peer.join_new());
        peer.idle(20ms);
        void* const connection = server->look([&] { return server->established.back(); });
        ASSERT_NE(connection, at_server);
        side::send(connection, random_content(100'000, 1), false);
        peer.idle(300ms);
    }
}

// Nothing may be sent on such a lane, so nothing else would show that its path has died.
TEST_F(hostile, a_lane_that_never_gets_ready_is_given_up) {
    expect_intact();
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.handshake());
    peer.say(control::hello{"mute", {100, 1 << 20, 4 << 20}, 1});
    ASSERT_TRUE(peer.next_message());
    void* const connection = server->look([&] { return server->established.back(); });
    ASSERT_NE(connection, at_server);
    // Five seconds, and the time that a connection outlives its last lane.
    EXPECT_TRUE(server->disconnected(connection, 10s));
}

// A client may say that any lane is gone; only lanes of its own connection are.
TEST_F(hostile, a_stranger_cannot_take_lanes_away) {
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.handshake());
    ASSERT_TRUE(peer.join_new());
    for (uint32_t number = 0; number < 1000; ++number) {
        peer.say(control::gone{number});
    }
    peer.idle(300ms);
    EXPECT_EQ(server->paths(at_server).size(), two_paths.size());
    expect_intact();
}

// It says hello and then nothing. The server, which keeps its connections alive, must not spin until it hears more.
TEST_F(hostile, a_peer_that_never_gets_ready_costs_no_time) {
    expect_intact();
    quic_peer peer(server->port());
    ASSERT_TRUE(peer.handshake());
    peer.say(control::hello{"mute", {100, 1 << 20, 4 << 20}, 1});
    ASSERT_TRUE(peer.next_message());
    void* const connection = server->look([&] { return server->established.back(); });
    ASSERT_NE(connection, at_server);
    ASSERT_EQ(tndm_enable_keep_alive(connection, nullptr, 10, 0), 0);
    client->destroy();
    ASSERT_TRUE(server->disconnected(at_server));
    peer.idle(50ms);
    const auto used = [] {
        timespec time{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
    };
    const double before = used();
    peer.idle(500ms);
    EXPECT_LT(used() - before, 0.2) << "seconds of processor time in half a second of nothing";
    // For the check that another connection is served.
    client.reset();
    start(two_paths, {}, {}, net->port());
}

}  // namespace
}  // namespace transport_test
