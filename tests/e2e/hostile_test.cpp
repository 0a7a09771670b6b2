#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

TEST(hostile, a_client_reaches_no_forbidden_target_in_any_form) {
    std::atomic<bool> reached{false};
    const service_t service([&](int) { reached = true; });
    const link_fixture_t link;
    // Without rules: everything but what is the server's own.
    auto args = link.server_args();
    for (auto found = args.begin(); (found = std::find(args.begin(), args.end(), "--allow")) != args.end();)
        args.erase(found, found + 2);
    process_t server(args);
    ASSERT_NE(server.wait_line("listening"), "") << server.errors();
    for (const char* host : {"127.0.0.1", "localhost", "0.0.0.0", "[::1]", "[::ffff:127.0.0.1]", "[::]"}) {
        const std::string forward = std::string("0=").append(host) + ":" + std::to_string(service.port());
        process_t client(with(link.client_args(1), "--tcp", forward));
        EXPECT_NE(exchange(connect_tcp(wait_forward(client)).fd(), 1, 1000), "") << host;
        client.end();
    }
    EXPECT_FALSE(reached);
    server.end();
}

TEST(hostile, a_flood_ends_at_its_limit_and_what_is_open_goes_on) {
    const service_t service(echo);
    const link_fixture_t link;
    auto args = link.server_args();
    args.insert(args.end(), {"--limit", "connections=1"});
    process_t server(args);
    ASSERT_NE(server.wait_line("listening"), "") << server.errors();
    process_t client(link.client_args(service.port()));
    const uint16_t port = wait_forward(client);
    const app::file_t open = connect_tcp(port);
    char byte = 'x';
    ASSERT_TRUE(write_all(open.fd(), &byte, 1) && read_all(open.fd(), &byte, 1));
    for (int i = 0; i < 100; ++i)
        EXPECT_FALSE(read_all(connect_tcp(port).fd(), &byte, 1));
    EXPECT_TRUE(write_all(open.fd(), &byte, 1) && read_all(open.fd(), &byte, 1));
    client.end();
    server.end();
}

}  // namespace
}  // namespace tandem::test
