// Networks that lose, delay, reorder and go dark.
#include "tests/transport/fixture.h"

namespace transport_test {
namespace {

using clock = std::chrono::steady_clock;

class trouble : public pair_test {
  protected:
    void begin_transfer(size_t bytes) {
        content = random_content(bytes, 77);
        stream = side::send(at_client, content, true);
    }
    uint64_t arrived() { return server->size(at_server, stream); }
    void expect_intact() {
        server->expect_content(at_server, stream, content);
        EXPECT_EQ(client->live(), 1U);
        EXPECT_EQ(client->look([&] { return client->established.size(); }), 1U) << "it was another connection";
    }
    void TearDown() override { reset(); }

    std::atomic<int> pass = 1 << 30;  // how many datagrams to the server still come through, if the network's tap asks
    bytes_t content;
    uint64_t stream = 0;
};

struct darkness {
    milliseconds time;
    size_t paths;
};

class blackout : public trouble, public ::testing::WithParamInterface<darkness> {};

// A silent path is probed every 100 ms (an eighth of its silence time, if that is longer), and one that stays silent
// for 5 s is opened anew beside. After light the next probe comes within that time and a round trip; what stood in the
// way of the first in-order byte needs one more. The rest of the second is for a busy machine.
TEST_P(blackout, is_over_soon_after_light_returns) {
    const auto [dark, count] = GetParam();
    const std::vector<std::string> paths(two_paths.begin(), two_paths.begin() + static_cast<ptrdiff_t>(count));
    start_over(paths, {.delay = 10ms, .mbit = 60});
    // More than can pass before the light returns.
    const size_t size = count == 1 ? 12'000'000 : 6'000'000 + static_cast<size_t>(dark.count()) * 8'000;
    begin_transfer(size);
    ASSERT_TRUE(server->received(at_server, stream, 2'000'000, false));
    net->dark(paths[0], true);
    const auto fell = clock::now();
    if (count == 1) {
        std::this_thread::sleep_for(dark);  // the darkness is the subject of the test
    } else {
        // The other path carries on: no pause is longer than the silence time and a loaded round trip or two.
        uint64_t before = arrived();
        while (clock::now() - fell < dark && before < size) {
            const auto seen = clock::now();
            ASSERT_TRUE(server->received(at_server, stream, std::min<uint64_t>(before + 1, size), false, 5s));
            EXPECT_LT(seconds_since(seen), 1.0 * static_cast<double>(scale)) << "stalled although a path was good";
            before = arrived();
        }
    }
    net->dark(paths[0], false);
    const auto light = clock::now();
    const uint64_t before = arrived();
    ASSERT_TRUE(server->received(at_server, stream, std::min<uint64_t>(before + 1, size), false));
    // A subflow opened while it is dark repeats its first packet every 360 ms at least.
    EXPECT_LT(seconds_since(light), count == 1 ? 1.0 : 1.0 * static_cast<double>(scale));
    expect_intact();
    // The path itself is back in use.
    side::send(at_client, random_content(1'000'000, 5), true);
    EXPECT_TRUE(eventually(
        [&] {
            const auto found = client->paths(at_client);
            return found.size() == count && std::all_of(found.begin(), found.end(),
                                                        [](const auto& p) { return p.state == TNDM_PATH_CONNECTED; });
        },
        5s));
}

// The server may open nothing itself, and a slow path's window is filled to the brim.
TEST_F(trouble, a_download_goes_on_soon_after_light_returns_to_a_slow_path) {
    start_over(one_path, {.delay = 10ms, .mbit = 8});
    const size_t size = 3'000'000;
    const uint64_t down = side::send(at_server, random_content(size, 4), true);
    ASSERT_TRUE(client->received(at_client, down, 600'000, false));
    net->dark(one_path[0], true);
    std::this_thread::sleep_for(4s);  // the darkness is the subject of the test
    net->dark(one_path[0], false);
    const auto light = clock::now();
    const uint64_t before = client->size(at_client, down);
    ASSERT_TRUE(client->received(at_client, down, before + 1, false));
    EXPECT_LT(seconds_since(light), 1.0);
    ASSERT_TRUE(client->received(at_client, down, size, true));
}

INSTANTIATE_TEST_SUITE_P(transport, blackout,
                         ::testing::Values(darkness{500ms, 1}, darkness{1s, 1}, darkness{4s, 1}, darkness{5s, 1},
                                           darkness{15s, 1}, darkness{500ms, 2}, darkness{1s, 2}, darkness{4s, 2},
                                           darkness{6s, 2}));

// One short darkness after another, each much shorter than the connection outlives its paths: the waiting times must
// not be added up.
TEST_F(trouble, two_dark_moments_are_not_one_long_darkness) {
    start_over(one_path, {}, {.linger_seconds = 3});
    ASSERT_EQ(tndm_enable_keep_alive(at_client, nullptr, 50, 0), 0);
    stream = side::open(at_client);
    const auto answers = [&] {
        const uint64_t before = arrived();
        EXPECT_EQ(side::write(at_client, stream, {1}), 0);
        return server->received(at_server, stream, before + 1, false, 2s);
    };
    ASSERT_TRUE(answers());
    const auto first = clock::now();
    net->dark("127.0.0.2", true);
    ASSERT_TRUE(eventually([&] { return client->paths(at_client)[0].state == TNDM_PATH_DEAD; }));
    net->dark("127.0.0.2", false);
    while (clock::now() - first < 2500ms) {
        ASSERT_TRUE(answers());
    }
    net->dark("127.0.0.2", true);
    // Dark across the moment at which the first darkness would be three seconds old.
    EXPECT_FALSE(client->disconnected(at_client, 1200ms));
    net->dark("127.0.0.2", false);
    EXPECT_TRUE(answers());
    EXPECT_EQ(client->live(), 1U);
    EXPECT_EQ(server->live(), 1U);
}

TEST_F(trouble, a_connection_without_a_path_ends_on_both_sides_after_its_time) {
    start_over(one_path, {}, {.linger_seconds = 2});
    // The server sends nothing, probes included, before it has heard that the client is ready.
    stream = side::open(at_client);
    ASSERT_EQ(side::write(at_client, stream, {1}), 0);
    ASSERT_TRUE(server->received(at_server, stream, 1, false));
    ASSERT_EQ(tndm_enable_keep_alive(at_client, nullptr, 50, 0), 0);
    ASSERT_EQ(tndm_enable_keep_alive(at_server, nullptr, 50, 0), 0);
    const auto fell = clock::now();
    net->dark("127.0.0.2", true);
    EXPECT_TRUE(client->disconnected(at_client, 10s));
    EXPECT_TRUE(server->disconnected(at_server, 10s));
    EXPECT_GT(seconds_since(fell), 1.9);
    EXPECT_LT(seconds_since(fell), 3.5);
    net->dark("127.0.0.2", false);
    EXPECT_NE(client->connected(), nullptr) << "it starts afresh";
}

// The last datagrams of a burst go missing once, and nothing follows that would show it.
TEST_F(trouble, a_lost_tail_is_sent_again_by_itself) {
    start_over(one_path, {.delay = 10ms}, {},
               [&](way direction, const network::datagram_t&) { return direction == way::down || pass-- > 0; });
    stream = side::open(at_client);
    uint64_t total = 0;
    for (int round = 0; round < 20; ++round) {
        // It fits the first congestion window, so it is under way at once.
        const auto burst = random_content(round % 2 == 0 ? 10'000 : 900, static_cast<uint32_t>(round));
        pass = round % 3;
        ASSERT_EQ(side::write(at_client, stream, burst), 0);
        ASSERT_TRUE(eventually([&] { return tndm_get_stream_backlog(at_client, stream) == 0; }));
        ASSERT_TRUE(eventually([&] { return pass < 0 || round % 2 != 0; }));
        pass = 1 << 30;
        total += burst.size();
        const auto sent = clock::now();
        ASSERT_TRUE(server->received(at_server, stream, total, false));
        EXPECT_LT(seconds_since(sent), 1.0) << "round " << round;
        ASSERT_TRUE(eventually([&] { return client->paths(at_client)[0].state == TNDM_PATH_CONNECTED; }));
    }
}

// From some moment on the path takes no large datagrams any more, and says nothing.
TEST_F(trouble, a_hole_for_large_datagrams_is_found_and_avoided) {
    for (const size_t largest : {1250U, 1350U}) {
        SCOPED_TRACE(largest);
        start_over(one_path, {.mbit = 40});
        begin_transfer(8'000'000 / scale);
        ASSERT_TRUE(server->received(at_server, stream, 1'000'000 / scale, false));
        net->swallow_above(largest);
        const auto shrunk = clock::now();
        // What was under way may still arrive; what was sent since cannot, until the hole is found.
        const uint64_t before = arrived() + 600'000;
        ASSERT_TRUE(server->received(at_server, stream, std::min<uint64_t>(before, content.size()), false));
        EXPECT_LT(seconds_since(shrunk), 5.0);
        expect_intact();
    }
}

// Only one direction of a path is lost for so long that the server forgets it: when it returns, the connection, which
// the other path has carried all the time, must not end because of what the forgotten one says.
TEST_F(trouble, a_path_that_the_server_has_forgotten_does_not_end_the_connection) {
    start_over(two_paths);
    ASSERT_EQ(tndm_enable_keep_alive(at_client, nullptr, 100, 0), 0);
    ASSERT_EQ(tndm_enable_keep_alive(at_server, nullptr, 100, 0), 0);
    net->dark("127.0.0.2", true, true);
    // The server's idle time, 30 s.
    ASSERT_TRUE(eventually([&] { return server->carried_paths(at_server).size() == 1; }, 60s));
    net->dark("127.0.0.2", false);
    EXPECT_TRUE(eventually([&] { return server->carried_paths(at_server).size() == 2; }, 15s));
    exchange(200'000, 1);
    EXPECT_EQ(client->live(), 1U);
    EXPECT_EQ(client->look([&] { return client->established.size(); }), 1U);
}

// A translator of addresses forgets its table in the middle of it all.
TEST_F(trouble, a_new_address_of_the_client_is_followed) {
    start_over(one_path, {.mbit = 60});
    begin_transfer(10'000'000 / scale);
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(server->received(at_server, stream, static_cast<uint64_t>(round) * 2'000'000 / scale, false));
        net->forget_addresses();
        const auto forgotten = clock::now();
        // More than was under way.
        ASSERT_TRUE(server->received(at_server, stream, arrived() + 600'000 / scale, false));
        EXPECT_LT(seconds_since(forgotten), 1.5);
    }
    expect_intact();
    // What the server has to say finds the way too, although the client has said nothing since.
    net->forget_addresses();
    const auto forgotten = clock::now();
    const uint64_t down = side::send(at_server, random_content(10'000, 3), true);
    EXPECT_EQ(tndm_enable_keep_alive(at_client, nullptr, 100, 0), 0);
    EXPECT_TRUE(client->received(at_client, down, 10'000, true));
    EXPECT_LT(seconds_since(forgotten), 2.5);
}

TEST_F(trouble, the_last_path_may_go_and_another_one_take_over) {
    start_over(one_path, {.mbit = 60}, {.linger_seconds = 2});
    begin_transfer(10'000'000 / scale);
    ASSERT_TRUE(server->received(at_server, stream, 500'000 / scale, false));
    ASSERT_EQ(tndm_remove_path(client->instance(), "127.0.0.2"), 0);
    ASSERT_TRUE(eventually([&] { return client->paths(at_client).empty(); }));
    ASSERT_EQ(client->add("127.0.0.3;backup:yes"), 0);
    expect_intact();
    const auto gone = clock::now();
    EXPECT_NE(tndm_remove_path(client->instance(), "127.0.0.3;backup:no"), 0) << "that is not its text";
    ASSERT_EQ(tndm_remove_path(client->instance(), "127.0.0.3;backup:yes"), 0);
    EXPECT_TRUE(client->disconnected(at_client, 10s));
    EXPECT_TRUE(server->disconnected(at_server, 10s));
    EXPECT_GT(seconds_since(gone), 1.5);
    ASSERT_EQ(client->add("127.0.0.2"), 0);
    EXPECT_NE(client->connected(), nullptr);
}

// A path whose gateway is dead from the start, and one that carries nothing yet: neither slows the good one.
TEST_F(trouble, a_path_that_never_answers_slows_nothing) {
    start_over(one_path, {.mbit = 60});
    client.reset();
    ASSERT_TRUE(server->disconnected(at_server));
    net->dark("127.0.0.3", true);
    const auto begin = clock::now();
    client = std::make_unique<client_side>();
    client->run(net->port(), {"127.0.0.3", "127.0.0.2"});
    at_client = client->connected();
    at_server = server->connected();
    begin_transfer(6'000'000 / scale);
    expect_intact();
    EXPECT_LT(seconds_since(begin), 5.0) << "6 MB at 60 Mbit/s";
}

// What the client says of its paths holds for what the server sends.
TEST_F(trouble, both_directions_obey_the_options_and_the_schedule) {
    const auto sent_by_server = [&](const std::string& name) {
        uint64_t bytes = 0;
        for (const auto& path : server->paths(at_server)) {
            bytes += path.name == name ? path.bytes_sent : 0;
        }
        return bytes;
    };
    const auto download = [&] {
        const uint64_t down = side::send(at_server, random_content(2'000'000 / scale, 3), true);
        EXPECT_TRUE(client->received(at_client, down, 2'000'000 / scale, true));
    };
    start_over({"127.0.0.2", "127.0.0.3;backup:yes"});
    EXPECT_NE(client->add("127.0.0.3"), 0) << "there is a path of that name";
    EXPECT_NE(client->add("127.0.0.4;backup:perhaps"), 0);
    download();
    // The figures may be 100 ms old, all of them alike.
    const uint64_t most = 1'500'000 / scale;
    EXPECT_TRUE(eventually([&] { return sent_by_server("127.0.0.2") > most; }, 5s));
    EXPECT_LT(sent_by_server("127.0.0.3"), most / 10);
    net->dark("127.0.0.2", true);
    download();
    start_over(two_paths, {}, {.schedule = "redundant"});
    EXPECT_NE(tndm_set_schedule(client->instance(), "default"), 0) << "it has started";
    download();
    // How much of it is sent twice before the faster path has it all delivered is a matter of luck; shared, it would
    // be sent once.
    EXPECT_TRUE(
        eventually([&] { return sent_by_server("127.0.0.2") + sent_by_server("127.0.0.3") > 2'500'000 / scale; }, 5s));
}

// The server's process is gone without a word and another one is there on the same port, with the same key.
TEST_F(trouble, a_restarted_server_is_noticed_at_once) {
    for (const auto& paths : {one_path, two_paths}) {
        SCOPED_TRACE(paths.size());
        start_over(paths);
        side::send(at_client, random_content(100'000, 1), false);
        for (const auto& path : paths) {
            net->dark(path, true);
        }
        const uint16_t port = server->port();
        server.reset();
        server = std::make_unique<server_side>(settings{}, port);
        ASSERT_EQ(server->port(), port);
        ASSERT_EQ(server->start(), 0);
        side::send(at_client, random_content(100'000, 2), false);
        for (const auto& path : paths) {
            net->dark(path, false);
        }
        const auto back = clock::now();
        ASSERT_TRUE(client->disconnected(at_client));
        // A probe of the silent path finds out; the next connection then waits for its first pause, 200 ms.
        EXPECT_LT(seconds_since(back), 2.0);
        at_client = client->connected();
        at_server = server->connected();
        ASSERT_NE(at_client, nullptr);
        ASSERT_NE(at_server, nullptr);
        EXPECT_LT(seconds_since(back), 3.0);
        exchange(100'000, 1);
    }
}

}  // namespace
}  // namespace transport_test
