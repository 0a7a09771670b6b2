// What each function of the interface does when all is well, and what it says when it is asked wrongly.
#include "tests/transport/fixture.h"
#include "tests/transport/network.h"

namespace transport_test {
namespace {

using functions = pair_test;

TEST_F(functions, one_path_carries_streams_both_ways) {
    start(one_path);
    exchange(8'000'000 / scale, 5);
}

TEST_F(functions, two_paths_carry_streams_both_ways) {
    network net((server = std::make_unique<server_side>())->port());
    ASSERT_EQ(server->start(), 0);
    start(two_paths, {}, {}, net.port());
    exchange(8'000'000 / scale, 5);
    for (const auto* end : {static_cast<side*>(client.get()), static_cast<side*>(server.get())}) {
        void* const connection = end == client.get() ? at_client : at_server;
        ASSERT_TRUE(eventually([&] {
            const auto found = end->paths(connection);
            return found.size() == 2 && found[0].packets_received > 50 && found[1].packets_received > 50;
        }));
        std::set<std::string> names;
        for (const auto& path : end->paths(connection)) {
            names.insert(path.name);
            EXPECT_EQ(path.state, TNDM_PATH_CONNECTED) << path.name;
            EXPECT_GT(path.packets_sent, 50U);
            EXPECT_GT(path.bytes_sent, 50 * 20U);
            EXPECT_GT(path.bytes_received, 50 * 20U);
            EXPECT_GT(path.rtt, 3900U) << "two milliseconds each way";
            EXPECT_LT(path.rtt, 1'000'000U);
            EXPECT_GT(path.window, 2000U);
        }
        EXPECT_EQ(names, (std::set<std::string>(two_paths.begin(), two_paths.end())));
    }
}

TEST_F(functions, the_figures_of_a_connection_are_true) {
    settings s;
    s.statistics_ms = 20;
    start(one_path, s);
    char alpn[16] = {};
    EXPECT_EQ(tndm_get_connection_alpn(at_client, alpn, sizeof alpn), 0);
    EXPECT_STREQ(alpn, "test");
    EXPECT_EQ(tndm_get_connection_alpn(at_server, alpn, 5), 0);
    EXPECT_LT(tndm_get_connection_alpn(at_server, alpn, 4), 0) << "no room for the terminator";
    EXPECT_EQ(tndm_is_client_instance(client->instance()), 1);
    EXPECT_EQ(tndm_is_client_instance(server->instance()), 0);
    EXPECT_EQ(tndm_get_instance_userdata(client->instance()), client.get());
    EXPECT_EQ(client->look([&] { return client->connections[at_client].id; }),
              server->look([&] { return server->connections[at_server].id; }));

    const auto content = random_content(1'000'000, 1);
    const uint64_t stream = side::send(at_client, content, false);
    EXPECT_EQ(tndm_get_bytes_queued(at_client), content.size());
    ASSERT_TRUE(server->received(at_server, stream, content.size(), false));
    EXPECT_EQ(tndm_get_data_sent(at_client), content.size());
    EXPECT_EQ(tndm_get_data_sent(at_server), 0U);
    EXPECT_EQ(tndm_get_stream_backlog(at_client, stream), 0U);

    ASSERT_TRUE(client->wait([&] { return client->statistics.size() >= 3; }));
    const auto last = client->look([&] { return client->statistics.back(); });
    EXPECT_GT(last.rtt, 0U);
    EXPECT_LT(last.rtt, 1'000'000U);
    EXPECT_GT(last.window, 2000U);
    EXPECT_GT(last.rate, 0U);

    st_tndm_path_info_t* record = nullptr;
    EXPECT_EQ(tndm_get_path_info_by_connection(client->instance(), at_client, &record, 0), 0);
    EXPECT_LT(tndm_get_path_info_by_connection(client->instance(), at_client, nullptr, 1), 0);
    EXPECT_LT(tndm_get_path_info_by_connection(client->instance(), at_client, &record, -1), 0);
}

// A quiet path has packets on it only because of the keep-alive: without one this one would rest for 30 s.
TEST_F(functions, keep_alive_probes_an_idle_path_at_its_interval) {
    start(one_path);
    ASSERT_EQ(tndm_enable_keep_alive(at_client, nullptr, 20, 0), 0);
    const auto sent = [&] {
        const auto found = client->paths(at_client);
        return found.empty() ? 0 : found[0].packets_sent;
    };
    const uint64_t before = sent();
    ASSERT_TRUE(eventually([&] { return sent() >= before + 10; }, 5s));
    EXPECT_EQ(client->paths(at_client)[0].state, TNDM_PATH_CONNECTED);
}

// The silence of a path shows on an idle connection because of its keep-alive, and so does its return.
TEST_F(functions, keep_alive_finds_a_dead_path) {
    network net((server = std::make_unique<server_side>())->port());
    ASSERT_EQ(server->start(), 0);
    start(two_paths, {}, {}, net.port());
    ASSERT_EQ(tndm_enable_keep_alive(at_client, nullptr, 50, 0), 0);
    const auto dead_paths = [&] {
        std::set<std::string> found;
        for (const auto& path : client->paths(at_client)) {
            if (path.state == TNDM_PATH_DEAD) {
                found.insert(path.name);
            }
        }
        return found;
    };
    net.dark("127.0.0.3", true);
    EXPECT_TRUE(eventually([&] { return dead_paths() == std::set<std::string>{"127.0.0.3"}; }, 3s));
    net.dark("127.0.0.3", false);
    EXPECT_TRUE(eventually([&] { return dead_paths().empty(); }, 3s));
    EXPECT_EQ(client->live(), 1U);
}

TEST(instances, need_a_loop_and_a_congestion_control_that_exists) {
    const auto loop = std::make_shared<loop_thread>();
    for (const char* name : {"reno", "cubic", "bbr", "bbr1"}) {
        settings s;
        s.loop = loop;
        s.congestion = name;
        EXPECT_NE(side(s).instance(), nullptr) << name;
    }
    for (const char* name : {"", "bbr2", "BBR", "vegas", static_cast<const char*>(nullptr)}) {
        settings s;
        s.loop = loop;
        s.congestion = name;
        EXPECT_EQ(side(s).instance(), nullptr);
    }
    EXPECT_EQ(tndm_create_instance(nullptr, nullptr), nullptr);
    const st_tndm_instance_t without_loop{1, "bbr", false, 0, 0, nullptr};
    EXPECT_EQ(tndm_create_instance(&without_loop, nullptr), nullptr);
}

TEST_F(functions, every_congestion_control_carries_data) {
    for (const char* name : {"reno", "cubic", "bbr", "bbr1"}) {
        SCOPED_TRACE(name);
        settings s;
        s.congestion = name;
        server.reset();
        start(one_path, s, s);
        exchange(1'000'000 / scale, 1);
    }
}

TEST(instances, start_once_and_only_with_what_they_need) {
    server_side server;
    st_tndm_server_t record{};
    EXPECT_LT(tndm_start_server(server.instance(), server.socket(), nullptr), 0);
    EXPECT_LT(tndm_start_server(server.instance(), -1, &record), 0);
    record.cert = "/nonexistent";
    record.key = "/nonexistent";
    EXPECT_LT(tndm_start_server(server.instance(), server.socket(), &record), 0);
    record.cert = identity::own().cert.c_str();
    record.key = identity::other().key.c_str();
    EXPECT_LT(tndm_start_server(server.instance(), server.socket(), &record), 0) << "key of another certificate";
    EXPECT_EQ(server.start(), 0);
    EXPECT_LT(server.start(), 0) << "twice";
    EXPECT_LT(tndm_add_path(server.instance(), "127.0.0.2"), 0) << "a server has no paths";

    settings bad;
    bad.trust = "pin:1234";
    EXPECT_LT(client_side(bad).start(server.port()), 0);
    client_side client;
    EXPECT_LT(client.start(server.port(), ""), 0);
    EXPECT_EQ(client.start(server.port()), 0);
    EXPECT_LT(client.start(server.port()), 0) << "twice";
    EXPECT_LT(client.add(""), 0);
    EXPECT_EQ(client.add("127.0.0.2"), 0);
    EXPECT_LT(client.add("127.0.0.2"), 0) << "twice";
    EXPECT_LT(tndm_remove_path(client.instance(), "127.0.0.9"), 0);
    EXPECT_NE(client.connected(), nullptr);
}

// --- who the server is ---

struct trusted {
    std::string text;
    bool good;
};

class trust_texts : public ::testing::TestWithParam<int> {
  public:
    static std::vector<trusted> all() {
        const identity& own = identity::own();
        const identity& other = identity::other();
        return {{"insecure:yes", true},
                {"pin:" + own.pin, true},
                {"pin:" + own.pin + ";name:server.test", true},
                {"ca:" + own.cert + ";name:server.test", true},
                {"", false},
                {"pin:" + other.pin, false},
                {"pin:" + own.pin + ";name:elsewhere.test", false},
                {"ca:" + own.cert + ";name:elsewhere.test", false},
                {"ca:" + own.cert, false}};  // the name is then the host's, 127.0.0.1
    }
};

TEST_P(trust_texts, decide_whether_a_connection_comes_up) {
    const trusted row = trust_texts::all()[static_cast<size_t>(GetParam())];
    SCOPED_TRACE(row.text);
    server_side server;
    ASSERT_EQ(server.start(), 0);
    settings s;
    s.trust = row.text;
    client_side client(s);
    ASSERT_EQ(client.start(server.port()), 0);
    ASSERT_EQ(client.add("127.0.0.2"), 0);
    if (row.good) {
        EXPECT_NE(client.connected(), nullptr);
        return;
    }
    ASSERT_TRUE(client.wait([&] { return !client.problems.empty(); }));
    client.look([&] {
        EXPECT_EQ(client.problems[0].code, TNDM_PROBLEM_CERTIFICATE);
        EXPECT_NE(client.problems[0].text, "");
        EXPECT_TRUE(client.established.empty());
    });
    // It tries again, and is refused again.
    ASSERT_TRUE(client.wait([&] { return client.problems.size() >= 2; }));
    EXPECT_TRUE(client.look([&] { return client.established.empty(); }));
    EXPECT_EQ(server.live(), 0U);
}

INSTANTIATE_TEST_SUITE_P(functions, trust_texts, ::testing::Range(0, static_cast<int>(trust_texts::all().size())));

TEST(problems, are_told_by_their_kind) {
    server_side server;
    ASSERT_EQ(server.start(), 0);
    settings other_alpn;
    other_alpn.alpn = "other";
    client_side stranger(other_alpn);
    ASSERT_EQ(stranger.start(server.port()), 0);
    ASSERT_EQ(stranger.add("127.0.0.2"), 0);

    client_side nameless;
    ASSERT_EQ(nameless.start(server.port(), "no-such-host.invalid"), 0);
    ASSERT_EQ(nameless.add("127.0.0.2"), 0);

    client_side lonely;  // nobody answers on its port; the handshake is given up after 8 s
    ASSERT_EQ(lonely.start(1), 0);
    ASSERT_EQ(lonely.add("127.0.0.2"), 0);

    for (const auto& [end, code] : std::vector<std::pair<client_side*, int>>{
             {&stranger, TNDM_PROBLEM_REFUSED}, {&nameless, TNDM_PROBLEM_NAME}, {&lonely, TNDM_PROBLEM_UNREACHABLE}}) {
        ASSERT_TRUE(end->wait([&] { return !end->problems.empty(); })) << code;
        EXPECT_EQ(end->look([&] { return end->problems[0].code; }), code);
        EXPECT_TRUE(end->look([&] { return end->established.empty(); }));
    }
    EXPECT_EQ(server.live(), 0U);
}

// A path whose socket cannot be had now is asked for again, and joins when it can be had.
TEST_F(functions, a_path_without_a_socket_is_tried_again) {
    start(one_path);
    ASSERT_EQ(client->add("203.0.113.1"), 0);  // not an address of this machine
    EXPECT_TRUE(client->wait(
        [&] { return std::count(client->created_paths.begin(), client->created_paths.end(), "203.0.113.1") >= 3; }));
    EXPECT_EQ(client->paths(at_client).at(1).state, TNDM_PATH_DEAD);
    exchange(100'000, 1);
}

TEST_F(functions, a_closed_connection_is_told_to_the_peer_and_made_again) {
    start(one_path);
    const auto content = random_content(200'000, 3);
    const uint64_t stream = side::send(at_server, content, true);
    tndm_delete_connection(server->instance(), at_server);
    ASSERT_TRUE(client->disconnected(at_client, 5s));
    ASSERT_TRUE(server->disconnected(at_server, 5s));
    EXPECT_TRUE(client->content(at_client, stream) == content) << "what was queued before the end was not carried";
    void* const again = client->connected();
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again, at_client);
}

}  // namespace
}  // namespace transport_test
