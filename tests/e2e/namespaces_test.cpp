#include "tests/e2e/namespaces.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <optional>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

// Server and echo service in one namespace, the client with two paths in the other, and a connection through the
// forward.
struct apart_t {
    apart_t() {
        nets.at_server([&] {
            uint16_t port = 0;
            app::file_t listening = listen_tcp(port);
            service.emplace(echo, std::move(listening), port);
        });
        server.emplace(link.start_server(nets.in_server()));
        auto args = nets.in_client();
        const auto own = link.client_args(service->port(), "10.77.9.1", {"10.77.1.2", "10.77.2.2"});
        args.insert(args.end(), own.begin(), own.end());
        client.emplace(args);
        const uint16_t port = wait_forward(*client);
        nets.at_client([&] { socket = connect_tcp(port); });
    }
    ~apart_t() {
        EXPECT_EQ(client->wait_line("reconnected", std::chrono::milliseconds(0)), "") << "the connection must last";
        client->signal(SIGTERM);
        EXPECT_EQ(client->wait(), 0) << client->errors();
        server->signal(SIGTERM);
        EXPECT_EQ(server->wait(), 0) << server->errors();
    }

    link_fixture_t link;
    namespaces_t nets;
    std::optional<service_t> service;
    std::optional<process_t> server;
    std::optional<process_t> client;
    app::file_t socket;
};

TEST(two_paths, a_transfer_outlives_the_first_path) {
    apart_t apart;
    EXPECT_EQ(exchange(apart.socket.fd(), 1, bulk_bytes, [&] { apart.nets.swallow(1); }), "");
}

TEST(two_paths, a_transfer_outlives_the_second_path) {
    apart_t apart;
    EXPECT_EQ(exchange(apart.socket.fd(), 2, bulk_bytes, [&] { apart.nets.swallow(2); }), "");
}

TEST(two_paths, a_transfer_outlives_an_interface_that_goes_down) {
    apart_t apart;
    EXPECT_EQ(exchange(apart.socket.fd(), 3, bulk_bytes, [&] { apart.nets.take_down(1); }), "");
}

TEST(two_paths, a_path_that_came_back_carries_when_the_other_one_goes) {
    apart_t apart;
    const auto swap = [&] {
        apart.nets.carry(1);
        apart.nets.swallow(2);
    };
    EXPECT_EQ(exchange(
                  apart.socket.fd(), 4, bulk_bytes, [&] { apart.nets.swallow(1); }, swap),
              "");
}

}  // namespace
}  // namespace tandem::test
