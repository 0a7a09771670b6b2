// What each function of the interface does when all is well, and what it says when it is asked wrongly.
#include "tests/transport/fixture.h"
#include "tests/transport/network.h"

namespace transport_test {
namespace {

using functions = pair_test;

TEST_F(functions, two_paths_carry_streams_both_ways) {
    start_over(two_paths);
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

TEST_F(functions, the_servers_family_decides_which_paths_reach_it) {
    const auto connect = [this](const char* listen, const char* host, const std::vector<std::string>& paths) {
        reset();
        server = std::make_unique<server_side>(settings{}, uint16_t{0}, listen);
        client = std::make_unique<client_side>();
        ASSERT_EQ(server->start(), 0);
        ASSERT_EQ(client->start(server->port(), host), 0);
        for (const std::string& path : paths) {
            ASSERT_EQ(client->add(path), 0);
        }
        at_client = client->connected();
        at_server = server->connected();
        ASSERT_NE(at_client, nullptr);
        ASSERT_NE(at_server, nullptr);
    };
    ASSERT_NO_FATAL_FAILURE(connect("::1", "::1", {"127.0.0.2", "lo", "::1"}));
    EXPECT_TRUE(eventually([&] { return server->carried_paths(at_server).size() == 2; }));
    exchange(2'000'000 / scale, 2);
    EXPECT_EQ(client->paths(at_client).at(0).state, TNDM_PATH_DEAD) << "an IPv4 address does not reach an IPv6 one";
    // One socket for both.
    ASSERT_NO_FATAL_FAILURE(connect("::", "127.0.0.1", {"::1", "127.0.0.2"}));
    exchange(2'000'000 / scale, 2);
    char address[64] = {};
    EXPECT_EQ(tndm_get_peer_address(at_server, address, sizeof address), 0);
    EXPECT_STREQ(address, "127.0.0.2");
}

TEST_F(functions, the_figures_of_a_connection_are_true) {
    start(one_path, {.statistics_ms = 20});
    char alpn[16] = {};
    EXPECT_EQ(tndm_get_connection_alpn(at_client, alpn, sizeof alpn), 0);
    EXPECT_STREQ(alpn, "test");
    EXPECT_EQ(tndm_get_connection_alpn(at_server, alpn, 5), 0);
    EXPECT_LT(tndm_get_connection_alpn(at_server, alpn, 4), 0) << "no room for the terminator";
    EXPECT_EQ(tndm_is_client_instance(client->instance()), 1);
    EXPECT_EQ(tndm_is_client_instance(server->instance()), 0);
    EXPECT_EQ(client->look([&] { return client->connections[at_client].id; }),
              server->look([&] { return server->connections[at_server].id; }));

    const auto content = random_content(1'000'000, 1);
    const uint64_t stream = side::send(at_client, content, false);
    EXPECT_EQ(tndm_get_bytes_queued(at_client), content.size());
    ASSERT_TRUE(server->received(at_server, stream, content.size(), false));
    // Counted only after the packets have left, and the server may be sooner.
    EXPECT_TRUE(eventually([&] { return tndm_get_stream_backlog(at_client, stream) == 0; }));
    EXPECT_EQ(tndm_get_data_sent(at_client), content.size());
    EXPECT_EQ(tndm_get_data_sent(at_server), 0U);

    EXPECT_TRUE(client->wait([&] {
        return std::any_of(client->statistics.begin(), client->statistics.end(), [](const auto& told) {
            return told.rtt > 0 && told.rtt < 1'000'000 && told.window > 2000 && told.rate > 0;
        });
    }));
    st_tndm_path_info_t* record = nullptr;
    EXPECT_EQ(tndm_get_path_info_by_connection(client->instance(), at_client, &record, 0), 0);
    EXPECT_LT(tndm_get_path_info_by_connection(client->instance(), at_client, nullptr, 1), 0);
    EXPECT_LT(tndm_get_path_info_by_connection(client->instance(), at_client, &record, -1), 0);
}

TEST_F(functions, every_congestion_control_carries_data) {
    settings s{.loop = std::make_shared<loop_thread>()};
    for (const char* name : {"reno", "cubic", "bbr", "bbr1"}) {
        SCOPED_TRACE(name);
        s.congestion = name;
        server.reset();
        start(one_path, s, s);
        exchange(1'000'000 / scale, 1);
    }
    for (const char* name : {"", "bbr2", "BBR", "vegas", static_cast<const char*>(nullptr)}) {
        s.congestion = name;
        EXPECT_EQ(side(s).instance(), nullptr);
    }
    EXPECT_EQ(tndm_create_instance(nullptr, nullptr), nullptr);
    const st_tndm_instance_t without_loop{1, "bbr", false, 0, 0, nullptr};
    EXPECT_EQ(tndm_create_instance(&without_loop, nullptr), nullptr);
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

    EXPECT_LT(client_side({.trust = "pin:1234"}).start(server.port()), 0);
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

TEST_F(functions, problems_are_told_by_their_kind) {
    server = std::make_unique<server_side>();
    ASSERT_EQ(server->start(), 0);
    const struct {
        int code;  // 0: none
        settings how;
        uint16_t port;
        const char* host;
    } rows[] = {{TNDM_PROBLEM_REFUSED, {.alpn = "other"}, server->port(), "127.0.0.1"},
                {TNDM_PROBLEM_CERTIFICATE, {.trust = "pin:" + identity::other().pin}, server->port(), "127.0.0.1"},
                {TNDM_PROBLEM_NAME, {}, server->port(), "no-such-host.invalid"},
                {TNDM_PROBLEM_UNREACHABLE, {}, 1, "127.0.0.1"},  // nobody answers; it gives up after 8 s
                {0, {.trust = "pin:" + identity::own().pin + ";name:server.test"}, server->port(), "127.0.0.1"}};
    std::vector<std::unique_ptr<client_side>> clients;
    for (const auto& row : rows) {
        clients.push_back(std::make_unique<client_side>(row.how));
        clients.back()->run(row.port, one_path, row.host);
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        SCOPED_TRACE(rows[i].code);
        client_side& end = *clients[i];
        if (rows[i].code == 0) {
            EXPECT_NE(end.connected(), nullptr);
            continue;
        }
        // It tries again and again, some of it less often.
        const size_t times = rows[i].code == TNDM_PROBLEM_CERTIFICATE ? 2 : 1;
        ASSERT_TRUE(end.wait([&] { return end.problems.size() >= times; }));
        end.look([&] {
            EXPECT_EQ(end.problems.back().first, rows[i].code);
            EXPECT_NE(end.problems[0].second, "");
            EXPECT_TRUE(end.established.empty());
        });
    }
    EXPECT_EQ(server->live(), 1U);
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
