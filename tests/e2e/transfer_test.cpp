#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <future>

#include "tests/e2e/link_fixture.h"

namespace tandem::test {
namespace {

TEST(transfer, bulk_both_ways_at_once_ends_with_the_streams) {
    const running_t running;
    EXPECT_EQ(exchange(connect_tcp(running.port).fd(), 1, bulk_bytes), "");
    // So do twenty at once, which do not mix.
    std::vector<std::future<std::string>> faults;
    for (uint64_t i = 0; i < 20; ++i) {
        faults.push_back(std::async(
            std::launch::async, [&, i] { return exchange(connect_tcp(running.port).fd(), 100 + i, bulk_bytes / 16); }));
    }
    for (auto& fault : faults)
        EXPECT_EQ(fault.get(), "");
}

// Either end may end its direction first; the other goes on.
TEST(transfer, one_direction_goes_on_after_the_other_has_ended) {
    const std::string bye = "bye";
    const std::vector<uint8_t> data(bulk_bytes / 8, 'd');
    for (const bool target_first : {false, true}) {
        std::promise<int64_t> received;
        const auto early = [&](int fd) {
            write_all(fd, bye.data(), bye.size());
            shutdown(fd, SHUT_WR);
            received.set_value(read_to_end(fd));
        };
        const auto late = [&](int fd) {
            if (read_to_end(fd) == static_cast<int64_t>(bye.size())) write_all(fd, data.data(), data.size());
            shutdown(fd, SHUT_WR);
        };
        const running_t running(target_first ? service_t::handler_t(early) : late);
        const app::file_t socket = connect_tcp(running.port);
        target_first ? late(socket.fd()) : early(socket.fd());
        std::future<int64_t> total = received.get_future();
        ASSERT_EQ(total.wait_for(patience), std::future_status::ready);
        EXPECT_EQ(total.get(), static_cast<int64_t>(data.size()));
    }
}

TEST(transfer, a_slow_reader_holds_back_only_itself) {
    const running_t running;
    const app::file_t slow = connect_tcp(running.port);
    // Fills every queue on the way there and back: nobody reads what comes back.
    std::vector<uint8_t> data(1 << 20);
    uint64_t queued = 0;
    for (pollfd room{slow.fd(), POLLOUT, 0}; TEMP_FAILURE_RETRY(poll(&room, 1, 1000)) > 0;) {
        const ssize_t sent = send(slow.fd(), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) queued += static_cast<uint64_t>(sent);
        ASSERT_LT(queued, uint64_t{1} << 30) << "the queues are not bounded";
    }
    EXPECT_EQ(exchange(connect_tcp(running.port).fd(), 5, bulk_bytes / 16), "");
    // What was queued comes back whole once it is read.
    ASSERT_EQ(shutdown(slow.fd(), SHUT_WR), 0);
    EXPECT_EQ(read_to_end(slow.fd()), static_cast<int64_t>(queued));
}

TEST(transfer, a_target_that_refuses_ends_only_that_connection) {
    const link_fixture_t link;
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
