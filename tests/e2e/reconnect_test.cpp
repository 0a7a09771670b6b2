#include <gtest/gtest.h>
#include <signal.h>

#include <list>

#include "tests/e2e/link_fixture.h"

namespace tandem::test {
namespace {

// A server that ended cleanly, and one that was killed, under a client with an open connection.
TEST(reconnect, the_client_finds_its_server_again_and_keeps_its_forward) {
    running_t running;
    std::list<process_t> later;
    for (const int signal : {SIGTERM, SIGKILL}) {
        const app::file_t open = connect_tcp(running.port);
        char byte = 'x';
        ASSERT_TRUE(write_all(open.fd(), &byte, 1) && read_all(open.fd(), &byte, 1));
        process_t& server = later.empty() ? running.server : later.back();
        server.signal(signal);
        EXPECT_EQ(server.wait(), signal == SIGKILL ? -SIGKILL : 0);
        later.push_back(running.link.start_server());
        ASSERT_EQ(running.client.wait_line("reconnected"), "reconnected") << running.client.errors();
        EXPECT_FALSE(read_all(open.fd(), &byte, 1)) << "a connection does not survive its link";
        EXPECT_EQ(exchange(connect_tcp(running.port).fd(), 3, 1 << 20), "");
    }
}

TEST(reconnect, a_client_waits_for_its_server_and_connections_wait_with_it) {
    const link_fixture_t link;
    const service_t service(echo);
    uint16_t port = 0;
    listen_tcp(port);  // free again, so that the client can have it
    process_t client(with(link.client_args(service.port()), "--tcp",
                          std::to_string(port) + "=127.0.0.1:" + std::to_string(service.port())));
    ASSERT_EQ(client.wait_error("no connection to"), true) << client.errors();
    const app::file_t early = connect_tcp(port);
    process_t server = link.start_server();
    EXPECT_EQ(wait_forward(client), port);
    EXPECT_EQ(exchange(early.fd(), 4, 100'000), "");
    EXPECT_EQ(count_lines(client.errors()), 1U) << "told once, however often it tried: " << client.errors();
}

}  // namespace
}  // namespace tandem::test
