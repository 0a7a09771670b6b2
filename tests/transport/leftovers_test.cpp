// What is left when connections are over: nothing.
#include <malloc.h>

#include <filesystem>
#include <iterator>

#include "platform/tndm/endpoint/instance.h"
#include "platform/tndm/endpoint/ledger.h"
#include "platform/tndm/endpoint/registry.h"
#include "tests/transport/fixture.h"

namespace transport_test {
namespace {

size_t entries(const char* folder) {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

// Descriptors, threads, instances, connections.
std::array<size_t, 4> holdings() {
    return {entries("/proc/self/fd"), entries("/proc/self/task"), tndm::registry<tndm::instance>::of_process().size(),
            tndm::registry<tndm::ledger>::of_process().size()};
}

class leftovers : public ::testing::Test {
  protected:
    leftovers() {
        server.keep_content = false;
        server.on_data = [](void* connection, uint64_t stream, bool fin, const uint8_t* data, uint32_t size) {
            tndm_add_to_stream(connection, stream, data, size, fin);
        };
        EXPECT_EQ(server.start(), 0);
    }
    // So many clients connect at once, say something, hear it again and go; and that `rounds` times.
    void connect(size_t rounds, size_t count, const std::vector<std::string>& paths) {
        for (size_t round = 0; round < rounds && !HasFatalFailure(); ++round) {
            std::vector<std::unique_ptr<client_side>> clients;
            for (size_t i = 0; i < count; ++i) {
                clients.push_back(std::make_unique<client_side>(s));
                clients.back()->run(server.port(), paths);
            }
            for (auto& client : clients) {
                void* const connection = client->connected();
                ASSERT_NE(connection, nullptr);
                client->expect_content(connection, side::send(connection, content, true), content);
            }
            EXPECT_GE(server.live(), count);
        }
        ASSERT_TRUE(server.wait([&] {
            return std::all_of(server.connections.begin(), server.connections.end(),
                               [](const auto& entry) { return entry.second.over; });
        }));
        // The record would grow with every connection.
        server.look([&] {
            server.connections.clear();
            server.established.clear();
        });
        EXPECT_TRUE(eventually([] { return tndm::registry<tndm::ledger>::of_process().size() == 0; }));
    }
    void expect_nothing_of(size_t rounds, size_t count, const std::vector<std::string>& paths) {
        connect(20 / count + 1, count, paths);
        const auto before = holdings();
        const size_t heap = mallinfo2().uordblks;
        connect(rounds, count, paths);
        eventually([&] { return holdings() == before; });
        EXPECT_EQ(holdings(), before);
#ifndef TRANSPORT_SMALL  // sanitizers keep freed memory, and find leaks by themselves
        // Tables keep their buckets and the allocator its odd ends: a leak of one small object a connection would show.
        EXPECT_LT(mallinfo2().uordblks, heap + 64 * rounds * count + 65536);
#else
        static_cast<void>(heap);
#endif
    }

    const settings s{.loop = std::make_shared<loop_thread>()};
    server_side server;
    const bytes_t content = random_content(3000, 1);
};

TEST_F(leftovers, of_a_thousand_connections_one_after_another_there_are_none) {
    expect_nothing_of(800 / scale, 1, one_path);
    expect_nothing_of(200 / scale, 1, two_paths);
}

TEST_F(leftovers, of_fifty_connections_at_once_there_are_none) {
    expect_nothing_of(3, 50, one_path);
}

// The client's own side: connections that it made again and again within one instance.
TEST_F(leftovers, of_connections_that_a_client_made_again_there_are_none) {
    client_side client(s);
    client.run(server.port());
    void* connection = client.connected();
    const auto before = holdings();
    for (int i = 0; i < 4; ++i) {  // pauses between short connections grow
        ASSERT_NE(connection, nullptr);
        tndm_delete_connection(client.instance(), connection);
        ASSERT_TRUE(client.disconnected(connection));
        connection = client.connected();
    }
    eventually([&] { return holdings() == before; });
    EXPECT_EQ(holdings(), before);
}

}  // namespace
}  // namespace transport_test
