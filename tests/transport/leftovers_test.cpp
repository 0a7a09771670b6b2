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

struct holdings {
    ptrdiff_t descriptors, threads;
    size_t instances, connections, heap;

    static ptrdiff_t entries(const char* folder) {
        return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
    }
    static holdings now() {
        return {entries("/proc/self/fd"), entries("/proc/self/task"),
                tndm::registry<tndm::instance>::of_process().size(), tndm::registry<tndm::ledger>::of_process().size(),
                mallinfo2().uordblks};
    }
};

// A client that connects, says something in both directions and goes; on both sides nothing of it may stay.
class leftovers : public ::testing::Test {
  protected:
    leftovers() {
        server.keep_content = false;
        server.on_data = [](void* connection, uint64_t stream, bool fin, const uint8_t* data, uint32_t size) {
            tndm_add_to_stream(connection, stream, data, size, fin);
        };
        EXPECT_EQ(server.start(), 0);
    }
    void connect_once(unsigned paths) {
        settings s;
        s.loop = loop;
        client_side client(s);
        ASSERT_EQ(client.start(server.port()), 0);
        for (unsigned i = 0; i < paths; ++i) {
            ASSERT_EQ(client.add(two_paths[i]), 0);
        }
        void* const connection = client.connected();
        ASSERT_NE(connection, nullptr);
        const uint64_t stream = side::send(connection, content, true);
        ASSERT_TRUE(client.received(connection, stream, content.size(), true));
    }
    // The record would grow with every connection.
    void forget() {
        server.wait([&] {
            return std::all_of(server.connections.begin(), server.connections.end(),
                               [](const auto& entry) { return entry.second.over; });
        });
        server.look([&] {
            server.connections.clear();
            server.established.clear();
        });
    }
    void expect_no_more_than(const holdings& before, size_t connections) {
        forget();
        EXPECT_TRUE(eventually([&] {
            const holdings after = holdings::now();
            return after.descriptors == before.descriptors && after.threads == before.threads &&
                   after.instances == before.instances && after.connections == before.connections;
        }));
        const holdings after = holdings::now();
        EXPECT_EQ(after.descriptors, before.descriptors);
        EXPECT_EQ(after.threads, before.threads);
        EXPECT_EQ(after.instances, before.instances);
        EXPECT_EQ(after.connections, before.connections);
#ifndef TRANSPORT_SMALL  // sanitizers keep freed memory, and find leaks by themselves
        // Tables keep their buckets and the allocator its odd ends: a leak of one small object a connection would show.
        EXPECT_LT(static_cast<ptrdiff_t>(after.heap - before.heap), static_cast<ptrdiff_t>(64 * connections + 65536));
#else
        static_cast<void>(connections);
#endif
    }

    std::shared_ptr<loop_thread> loop = std::make_shared<loop_thread>();
    server_side server;
    const bytes_t content = random_content(3000, 1);
};

TEST_F(leftovers, of_a_thousand_connections_one_after_another_there_are_none) {
    const size_t count = 1000 / scale;
    for (int i = 0; i < 20; ++i) {
        connect_once(2);
    }
    forget();
    EXPECT_TRUE(eventually([] { return tndm::registry<tndm::ledger>::of_process().size() == 0; }));
    const holdings before = holdings::now();
    for (size_t i = 0; i < count && !HasFatalFailure(); ++i) {
        connect_once(i % 8 == 0 ? 2 : 1);
    }
    expect_no_more_than(before, count);
}

TEST_F(leftovers, of_fifty_connections_at_once_there_are_none) {
    const auto round = [&] {
        settings s;
        s.loop = loop;
        std::vector<std::unique_ptr<client_side>> clients;
        for (int i = 0; i < 50; ++i) {
            clients.push_back(std::make_unique<client_side>(s));
            ASSERT_EQ(clients.back()->start(server.port()), 0);
            ASSERT_EQ(clients.back()->add(two_paths[static_cast<size_t>(i) % 2]), 0);
        }
        std::vector<uint64_t> streams;
        for (auto& client : clients) {
            void* const connection = client->connected();
            ASSERT_NE(connection, nullptr);
            streams.push_back(side::send(connection, content, true));
        }
        EXPECT_EQ(server.live(), 50U);
        for (size_t i = 0; i < clients.size(); ++i) {
            ASSERT_TRUE(clients[i]->received(clients[i]->connected(), streams[i], content.size(), true));
        }
    };
    round();
    forget();
    EXPECT_TRUE(eventually([] { return tndm::registry<tndm::ledger>::of_process().size() == 0; }));
    const holdings before = holdings::now();
    for (int i = 0; i < 3 && !HasFatalFailure(); ++i) {
        round();
        forget();
    }
    expect_no_more_than(before, 150);
}

// The client's own side: connections that it made again and again within one instance.
TEST_F(leftovers, of_connections_that_a_client_made_again_there_are_none) {
    settings s;
    s.loop = loop;
    client_side client(s);
    ASSERT_EQ(client.start(server.port()), 0);
    ASSERT_EQ(client.add("127.0.0.2"), 0);
    void* connection = client.connected();
    const holdings before = holdings::now();
    for (int i = 0; i < 4; ++i) {  // pauses between short connections grow
        ASSERT_NE(connection, nullptr);
        tndm_delete_connection(client.instance(), connection);
        ASSERT_TRUE(client.disconnected(connection));
        connection = client.connected();
    }
    EXPECT_TRUE(eventually([&] {
        const holdings after = holdings::now();
        return after.connections == before.connections && after.descriptors == before.descriptors;
    })) << holdings::now().connections
        << " " << before.connections << " " << holdings::now().descriptors << " " << before.descriptors;
}

}  // namespace
}  // namespace transport_test
