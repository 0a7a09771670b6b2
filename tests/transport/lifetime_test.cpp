// Instances and connections that go at every moment, and handles that outlive them.
#include <sys/socket.h>

#include <future>
#include <tuple>

#include "tests/transport/fixture.h"

namespace transport_test {
namespace {

using lifetime = pair_test;
constexpr uint64_t none = ~uint64_t{0};

TEST(instances, may_go_before_they_have_started_and_although_nobody_runs_the_loop) {
    st_tloop_t* const idle = tloop_create("libev", false, 0, 0);
    const st_tndm_instance_t record{10, "bbr", false, 0, 0, idle};
    void* const instance = tndm_create_instance(&record, nullptr);
    EXPECT_EQ(tndm_add_path(instance, "127.0.0.2"), 0);
    tndm_destroy_instance(instance);
    idle->ops->destroy(idle);
    const settings s{.loop = std::make_shared<loop_thread>()};
    for (int i = 0; i < 100; ++i) {
        side straight(s);
        straight.destroy();
        client_side with_path(s);
        EXPECT_EQ(with_path.add("127.0.0.2"), 0);
        server_side server(s);
        client_side started(s);
        EXPECT_EQ(server.start(), 0);
        EXPECT_EQ(started.start(server.port()), 0);
    }
}

TEST(instances, may_go_while_they_connect) {
    server_side server;
    ASSERT_EQ(server.start(), 0);
    const settings s{.loop = std::make_shared<loop_thread>()};
    for (int i = 0; i < 60; ++i) {
        client_side client(s);
        client.run(server.port(), two_paths, i % 4 == 3 ? "localhost" : "127.0.0.1");
        // Each round goes a little later in the handshake.
        std::this_thread::sleep_for(std::chrono::microseconds(i * 200));
    }
    EXPECT_TRUE(eventually([&] { return server.live() == 0; }));
}

enum class moment { create_path, established, data, writable, disconnected, problem, path_broken };

class inside_callbacks : public ::testing::TestWithParam<std::tuple<moment, bool>> {};

// From inside each callback: everything of the instance, or of the connection, has to stand until the callback has
// returned. After an instance's end no callback comes; another instance on the same loop lives on.
TEST_P(inside_callbacks, an_instance_or_a_connection_may_go) {
    const auto [when, whole] = GetParam();
    const settings s{.loop = std::make_shared<loop_thread>()};
    for (int round = 0; round < 10; ++round) {
        server_side server(s);
        server.on_data = [](void* connection, uint64_t stream, bool fin, const uint8_t* data, uint32_t size) {
            tndm_add_to_stream(connection, stream, data, size, fin);
        };
        ASSERT_EQ(server.start(), 0);
        settings c = s;
        // A refused certificate is a problem, and breaks the path.
        const bool refuses = when == moment::problem || when == moment::path_broken;
        c.trust = refuses ? "pin:" + identity::other().pin : s.trust;
        std::atomic<bool> gone = false;
        std::atomic<int> ends = 0;
        std::promise<void> happened;
        client_side client(c);
        const auto go = [&, end = when, all = whole](moment now, void* connection) {
            EXPECT_FALSE(gone && all) << "called back after the end";
            if (now != end || gone) {
                return;
            }
            gone = true;
            if (all) {
                void* const handle = client.instance();
                client.destroy();
                EXPECT_LT(tndm_add_path(handle, "127.0.0.7"), 0);
            } else {
                const int before = ends;
                tndm_delete_connection(client.instance(), connection);
                tndm_delete_connection(client.instance(), connection);
                EXPECT_EQ(ends, before) << "called back from inside the call";
            }
            happened.set_value();
        };
        client.on_create_path = [&](const char*) { go(moment::create_path, nullptr); };
        client.on_problem = [&](int) { go(moment::problem, nullptr); };
        client.on_path_broken = [&](const char*) { go(moment::path_broken, nullptr); };
        client.on_established = [&](void* connection) {
            const uint64_t stream = side::open(connection);
            side::write(connection, stream, random_content(2'000'000 / scale, 1));
            EXPECT_EQ(tndm_request_writable(connection, stream, 100'000), 0);
            go(moment::established, connection);
        };
        client.on_data = [&, end = when, heard = 0](void* connection, uint64_t, bool, const uint8_t*,
                                                    uint32_t) mutable {
            if (++heard == 3 && end == moment::disconnected) {
                tndm_delete_connection(client.instance(), connection);
            }
            if (heard > round % 3) {
                go(moment::data, connection);
            }
        };
        client.on_writable = [&](void* connection, uint64_t) { go(moment::writable, connection); };
        client.on_disconnected = [&](void* connection) {
            ++ends;
            go(moment::disconnected, connection);
        };
        ASSERT_EQ(client.start(server.port()), 0);
        for (const auto& path : two_paths) {
            client.add(path);  // fails when the first one has already led to the end
        }
        ASSERT_EQ(happened.get_future().wait_for(patience), std::future_status::ready);
        if (!whole) {
            ASSERT_TRUE(client.disconnected(client.look([&] { return client.established.front(); })));
            EXPECT_TRUE(client.wait([&] { return client.established.size() >= 2; })) << "it makes the next one itself";
            client.destroy();
        }
        // Its server, on the same loop, still serves.
        client_side next(s);
        next.run(server.port());
        EXPECT_NE(next.connected(), nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(instances, inside_callbacks,
                         ::testing::Combine(::testing::Values(moment::create_path, moment::established, moment::data,
                                                              moment::writable, moment::disconnected, moment::problem,
                                                              moment::path_broken),
                                            ::testing::Values(true)));
INSTANTIATE_TEST_SUITE_P(connections, inside_callbacks,
                         ::testing::Combine(::testing::Values(moment::established, moment::data, moment::writable,
                                                              moment::disconnected),
                                            ::testing::Values(false)));

// A server too, while many datagrams wait in its socket.
TEST_F(lifetime, a_server_may_be_destroyed_inside_its_data_callback) {
    for (int round = 0; round < 5; ++round) {
        server = std::make_unique<server_side>();
        std::atomic<int> left = 4;
        std::promise<void> happened;
        server->on_data = [&](void*, uint64_t, bool, const uint8_t*, uint32_t) {
            const int now = --left;
            EXPECT_GE(now, 0) << "called back after the end";
            if (now == 0) {
                server->destroy();
                happened.set_value();  // from here on nothing of the test may be touched
            }
        };
        ASSERT_EQ(server->start(), 0);
        start(two_paths);
        side::send(at_client, random_content(20'000'000 / scale, 1), false);
        ASSERT_EQ(happened.get_future().wait_for(patience), std::future_status::ready);
        EXPECT_TRUE(client->disconnected(at_client, 5s)) << "no goodbye came";
    }
}

TEST_F(lifetime, an_instance_may_be_destroyed_by_another_thread_under_load) {
    for (int round = 0; round < 10; ++round) {
        server.reset();
        start(two_paths);
        side::send(at_client, random_content(8'000'000 / scale, 1), false);
        side::send(at_server, random_content(8'000'000 / scale, 2), false);
        ASSERT_TRUE(client->received(at_client, 1, 100'000, false));
        side* const victim = round % 2 == 0 ? static_cast<side*>(client.get()) : server.get();
        side* const other = round % 2 == 0 ? static_cast<side*>(server.get()) : client.get();
        std::thread second([&] { victim->destroy(); });
        victim->destroy();
        second.join();
        EXPECT_TRUE(other->disconnected(round % 2 == 0 ? at_server : at_client, 5s));
    }
}

// --- handles ---

void call_everything(void* instance, void* connection) {
    const uint8_t byte = 1;
    char text[16];
    st_tndm_path_info_t* record = nullptr;
    EXPECT_EQ(tndm_get_next_local_stream_id(connection, false), none);
    EXPECT_EQ(tndm_get_next_local_stream_id(connection, true), none);
    EXPECT_LT(tndm_get_connection_alpn(connection, text, sizeof text), 0);
    EXPECT_LT(tndm_add_to_stream(connection, 0, &byte, 1, 0), 0);
    EXPECT_LT(tndm_add_to_stream(connection, 0, nullptr, 0, 1), 0);
    EXPECT_LT(tndm_add_to_stream(connection, 0, nullptr, 0, 0), 0);
    auto* memory = static_cast<uint8_t*>(malloc(1));
    EXPECT_LT(tndm_add_to_stream_ext(connection, 0, memory, 1, 0), 0);
    free(memory);
    tndm_delete_connection(instance, connection);
    EXPECT_LT(tndm_enable_keep_alive(connection, nullptr, 1, 0), 0);
    EXPECT_EQ(tndm_get_bytes_queued(connection), 0U);
    EXPECT_EQ(tndm_get_data_sent(connection), 0U);
    EXPECT_EQ(tndm_get_stream_backlog(connection, 0), 0U);
    EXPECT_LT(tndm_request_writable(connection, 0, 1), 0);
    EXPECT_LT(tndm_pause_stream(connection, 0, 1), 0);
    EXPECT_LT(tndm_get_path_info_by_connection(instance, connection, &record, 1), 0);
}

void call_everything_of(void* instance, int socket) {
    st_tndm_client_t client{};
    st_tndm_server_t server{};
    EXPECT_LT(tndm_start_client(instance, "127.0.0.1", 1, &client), 0);
    EXPECT_LT(tndm_start_server(instance, socket, &server), 0);
    EXPECT_LT(tndm_add_path(instance, "127.0.0.2"), 0);
    EXPECT_LT(tndm_remove_path(instance, "127.0.0.2"), 0);
    EXPECT_EQ(tndm_get_instance_userdata(instance), nullptr);
    EXPECT_EQ(tndm_is_client_instance(instance), 0);
    EXPECT_LT(tndm_set_writable_callback(instance, nullptr), 0);
    EXPECT_LT(tndm_set_problem_callback(instance, nullptr), 0);
    tndm_destroy_instance(instance);
}

TEST_F(lifetime, dead_null_and_foreign_handles_only_fail) {
    start(one_path);
    int foreign = 0;
    void* const instance = client->instance();
    tndm_delete_connection(instance, at_client);
    ASSERT_TRUE(client->disconnected(at_client));
    void* const next = client->connected();
    ASSERT_NE(next, nullptr);
    for (void* handle : {at_client, static_cast<void*>(nullptr), static_cast<void*>(&foreign)}) {
        call_everything(instance, handle);
    }
    client->destroy();
    call_everything(instance, next);
    for (void* handle : {instance, static_cast<void*>(nullptr), static_cast<void*>(&foreign)}) {
        call_everything_of(handle, server->socket());
    }
    tndm_close_socket(-1);
    EXPECT_EQ(tndm_open_socket(AF_INET, 0, "no-such-interface"), -1);
    EXPECT_EQ(tndm_open_socket(-5, 0, nullptr), -1);
    st_tndm_path_info_t* record = nullptr;
    EXPECT_LT(tndm_get_path_info_by_connection(nullptr, at_server, &record, 1), 0);
    // Another instance's connection: the wrong instance's loop does no harm.
    start(one_path);
    tndm_delete_connection(client->instance(), at_server);
    EXPECT_TRUE(server->disconnected(at_server));
}

// Writers that know nothing of the end: each call succeeds or fails, and what succeeds on one thread stays in order.
TEST_F(lifetime, many_threads_write_while_the_connection_dies) {
    for (int round = 0; round < 6; ++round) {
        server.reset();
        start(two_paths);
        server->keep_content = false;
        std::atomic<bool> stop = false;
        std::vector<std::thread> writers;
        for (uint32_t i = 0; i < 6; ++i) {
            writers.emplace_back([&, i] {
                const uint64_t stream = side::open(at_client);
                const auto content = random_content(1 + 900 * i, i);
                while (!stop) {
                    const bool full = tndm_get_stream_backlog(at_client, stream) > 500'000;
                    if (!full && side::write(at_client, stream, content) != 0) {
                        return;
                    }
                    tndm_request_writable(at_client, stream, 1000);
                    tndm_pause_stream(at_client, stream, 0);
                    tndm_get_bytes_queued(at_client);
                    client->paths(at_client);
                    tndm_enable_keep_alive(at_client, nullptr, 10 + i, 0);
                }
            });
        }
        ASSERT_TRUE(server->received(at_server, 0, 20'000, false));
        switch (round % 3) {
            case 0:
                tndm_delete_connection(client->instance(), at_client);
                break;
            case 1:
                server->destroy();
                break;
            default:
                client->destroy();
        }
        if (round % 3 != 2) {
            ASSERT_TRUE(client->disconnected(at_client));
        }
        stop = true;
        for (auto& writer : writers) {
            writer.join();
        }
    }
}

// Bytes that several threads queue on streams of their own while others open streams.
TEST_F(lifetime, threads_that_write_their_own_streams_lose_nothing) {
    start(two_paths);
    std::array<std::pair<uint64_t, bytes_t>, 6> flows;
    std::vector<std::thread> writers;
    for (uint32_t i = 0; i < flows.size(); ++i) {
        writers.emplace_back([this, i, &flow = flows[i]] {
            flow = {side::open(at_client, i % 2 == 0), random_content(1'500'000 / scale, i)};
            side::write_pieces(at_client, flow.first, flow.second, [i] { return 700 + 3000 * i; });
        });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    for (const auto& [stream, content] : flows) {
        server->expect_content(at_server, stream, content);
    }
}

}  // namespace
}  // namespace transport_test
