#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

// Ends the server by `signal` under a client with an open connection, starts it again, and expects the client to use
// the same forward.
void restart_server(int signal) {
    const link_fixture_t link;
    const service_t service(echo);
    process_t server = link.start_server();
    process_t client(link.client_args(service.port()));
    const uint16_t port = wait_forward(client);
    const app::file_t open = connect_tcp(port);
    char byte = 'x';
    ASSERT_TRUE(write_all(open.fd(), &byte, 1) && read_all(open.fd(), &byte, 1));

    server.signal(signal);
    EXPECT_EQ(server.wait(), signal == SIGKILL ? -SIGKILL : 0);
    process_t second = link.start_server();
    ASSERT_EQ(client.wait_line("reconnected"), "reconnected") << client.errors();
    EXPECT_FALSE(read_all(open.fd(), &byte, 1)) << "a connection does not survive its link";
    EXPECT_EQ(exchange(connect_tcp(port).fd(), 3, 1 << 20), "");
    client.signal(SIGINT);
    EXPECT_EQ(client.wait(), 0);
}

TEST(reconnect, after_a_server_that_was_killed) {
    restart_server(SIGKILL);
}

TEST(reconnect, after_a_server_that_ended_cleanly) {
    restart_server(SIGTERM);
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

TEST(reconnect, a_second_client_does_not_disturb_the_first) {
    const link_fixture_t link;
    const service_t service(echo);
    process_t server = link.start_server();
    process_t first(link.client_args(service.port()));
    const uint16_t first_port = wait_forward(first);
    const app::file_t open = connect_tcp(first_port);
    {
        process_t second(link.client_args(service.port()));
        EXPECT_EQ(exchange(connect_tcp(wait_forward(second)).fd(), 5, 100'000), "");
    }
    EXPECT_EQ(exchange(open.fd(), 6, 1 << 20), "");
}

}  // namespace
}  // namespace tandem::test
