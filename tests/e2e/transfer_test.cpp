#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <future>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

// A server, and a client with two paths that forwards to one service.
struct joined_t {
    explicit joined_t(service_t::handler_t handler)
        : service(std::move(handler)), server(link.start_server()), client(link.client_args(service.port())) {
        port = wait_forward(client);
    }
    ~joined_t() {
        client.signal(SIGTERM);
        EXPECT_EQ(client.wait(), 0) << client.errors();
        server.signal(SIGTERM);
        EXPECT_EQ(server.wait(), 0) << server.errors();
    }

    link_fixture_t link;
    service_t service;
    process_t server;
    process_t client;
    uint16_t port = 0;
};

TEST(transfer, bulk_both_ways_at_once_ends_with_the_streams) {
    const joined_t joined(echo);
    EXPECT_EQ(exchange(connect_tcp(joined.port).fd(), 1, bulk_bytes), "");
}

TEST(transfer, one_direction_goes_on_after_the_other_has_ended) {
    const joined_t joined(answer_after_end);
    const app::file_t socket = connect_tcp(joined.port);
    const uint64_t bytes = bulk_bytes / 4;
    ASSERT_TRUE(write_all(socket.fd(), &bytes, sizeof(bytes)));
    ASSERT_EQ(shutdown(socket.fd(), SHUT_WR), 0);
    std::vector<uint8_t> got(bytes);
    std::vector<uint8_t> expected(bytes);
    pattern_t(7).fill(expected);
    ASSERT_TRUE(read_all(socket.fd(), got.data(), got.size()));
    EXPECT_TRUE(got == expected);
    EXPECT_EQ(read_to_end(socket.fd()), 0);
}

TEST(transfer, the_target_may_end_first) {
    std::promise<int64_t> received;
    const joined_t joined([&](int fd) {
        write_all(fd, "bye", 3);
        shutdown(fd, SHUT_WR);
        received.set_value(read_to_end(fd));
    });
    const app::file_t socket = connect_tcp(joined.port);
    char bye[3];
    ASSERT_TRUE(read_all(socket.fd(), bye, sizeof(bye)));
    EXPECT_EQ(read_to_end(socket.fd()), 0);
    std::vector<uint8_t> data(1 << 20);
    ASSERT_TRUE(write_all(socket.fd(), data.data(), data.size())) << "this direction is still open";
    ASSERT_EQ(shutdown(socket.fd(), SHUT_WR), 0);
    std::future<int64_t> total = received.get_future();
    ASSERT_EQ(total.wait_for(patience), std::future_status::ready);
    EXPECT_EQ(total.get(), int64_t{1} << 20);
}

TEST(transfer, twenty_at_once_do_not_mix) {
    const joined_t joined(echo);
    std::vector<std::string> faults(20);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < faults.size(); ++i) {
        threads.emplace_back([&, i] { faults[i] = exchange(connect_tcp(joined.port).fd(), 100 + i, bulk_bytes / 16); });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& fault : faults)
        EXPECT_EQ(fault, "");
}

TEST(transfer, small_messages_go_back_and_forth) {
    const joined_t joined(echo);
    const app::file_t socket = connect_tcp(joined.port);
    for (size_t round = 0; round < 200; ++round) {
        std::vector<uint8_t> sent(1 + round % 64);
        std::vector<uint8_t> got(sent.size());
        pattern_t(round).fill(sent);
        ASSERT_TRUE(write_all(socket.fd(), sent.data(), sent.size()));
        ASSERT_TRUE(read_all(socket.fd(), got.data(), got.size())) << "round " << round;
        ASSERT_TRUE(got == sent) << "round " << round;
    }
}

TEST(transfer, many_short_connections_leave_nothing_behind) {
    const joined_t joined(echo);
    for (uint64_t i = 0; i < 300; ++i)
        ASSERT_EQ(exchange(connect_tcp(joined.port).fd(), i, 1024), "") << i;
}

TEST(transfer, a_slow_reader_holds_back_only_itself) {
    const joined_t joined(echo);
    const app::file_t slow = connect_tcp(joined.port);
    // Fills every queue on the way there and back: nobody reads what comes back.
    std::vector<uint8_t> data(1 << 20);
    uint64_t queued = 0;
    for (;;) {
        const ssize_t sent = send(slow.fd(), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            queued += static_cast<uint64_t>(sent);
            ASSERT_LT(queued, uint64_t{1} << 30) << "the queues are not bounded";
            continue;
        }
        pollfd room{slow.fd(), POLLOUT, 0};
        if (poll(&room, 1, 1000) == 0) break;  // no room for a second: the sender is held back
    }
    EXPECT_EQ(exchange(connect_tcp(joined.port).fd(), 5, bulk_bytes / 16), "");
    // What was queued comes back whole once it is read.
    ASSERT_EQ(shutdown(slow.fd(), SHUT_WR), 0);
    EXPECT_EQ(read_to_end(slow.fd()), static_cast<int64_t>(queued));
}

TEST(transfer, a_target_that_refuses_ends_only_that_connection) {
    link_fixture_t link;
    uint16_t closed_port = 0;
    listen_tcp(closed_port);  // closed again at once
    const service_t service(echo);
    process_t server = link.start_server();
    auto args = link.client_args(closed_port);
    args.insert(args.end(), {"--tcp", "0=127.0.0.1:" + std::to_string(service.port())});
    process_t client(args);
    const uint16_t refused = wait_forward(client);
    const uint16_t working = wait_forward(client);
    EXPECT_LE(read_to_end(connect_tcp(refused).fd()), 0);
    EXPECT_EQ(exchange(connect_tcp(working).fd(), 1, 1000), "");
}

}  // namespace
}  // namespace tandem::test
