// A client that one has let in and cannot trust, on a host of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/namespaces.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

class hostile : public testing::Test {
  protected:
    void serve(service_t::handler_t handler) {
        nets.at_server([&] {
            uint16_t port = 0;
            app::file_t listening = listen_tcp(port);
            service.emplace(std::move(handler), std::move(listening), port);
        });
    }

    process_t start_server(const std::vector<std::string>& own) {
        process_t server(joined(nets.in_server(), own));
        EXPECT_NE(server.wait_line("listening"), "") << server.errors();
        return server;
    }

    // To the service.
    std::vector<std::string> client_args() const {
        return link.client_args(service->port(), "10.77.9.1", {"10.77.1.2", "10.77.2.2"});
    }
    process_t start_client(const std::vector<std::string>& own) const {
        return process_t(joined(nets.in_client(), own));
    }

    app::file_t connect(uint16_t port) const {
        app::file_t socket;
        nets.at_client([&] { socket = connect_tcp(port); });
        return socket;
    }
    static bool is_echoed(const app::file_t& socket) {
        char byte = 'x';
        return write_all(socket.fd(), &byte, 1) && read_all(socket.fd(), &byte, 1);
    }

    static std::vector<std::string> joined(std::vector<std::string> before, const std::vector<std::string>& own) {
        before.insert(before.end(), own.begin(), own.end());
        return before;
    }
    static std::vector<std::string> without(std::vector<std::string> args, const std::string& option) {
        for (auto found = args.begin(); (found = std::find(args.begin(), args.end(), option)) != args.end();)
            args.erase(found, found + 2);
        return args;
    }

    const link_fixture_t link;
    namespaces_t nets;
    std::optional<service_t> service;
};

TEST_F(hostile, a_client_reaches_no_forbidden_target_in_any_form) {
    std::atomic<bool> reached{false};
    serve([&](int) { reached = true; });
    // Without rules: everything but what is the server's own.
    process_t server = start_server(without(link.server_args(), "--allow"));
    const std::vector<std::string> forms = {"127.0.0.1", "localhost", "0.0.0.0", "[::1]", "[::ffff:127.0.0.1]", "[::]"};
    auto args = without(client_args(), "--tcp");
    for (const std::string& form : forms)
        args = joined(args, {"--tcp", "0=" + form + ":" + std::to_string(service->port())});
    process_t client = start_client(args);
    for (const std::string& form : forms) {
        const app::file_t socket = connect(wait_forward(client));
        EXPECT_NE(exchange(socket.fd(), 1, 1000), "") << form;
    }
    EXPECT_FALSE(reached);
    client.end();
    server.end();
}

TEST_F(hostile, a_flood_ends_at_its_limit_and_what_is_open_goes_on) {
    serve(echo);
    process_t server = start_server(joined(link.server_args(), {"--limit", "connections=1"}));
    process_t client = start_client(client_args());
    const uint16_t port = wait_forward(client);
    const app::file_t open = connect(port);
    ASSERT_TRUE(is_echoed(open));
    nets.at_client([&] {
        char byte = 0;
        for (int i = 0; i < 100; ++i)
            EXPECT_FALSE(read_all(connect_tcp(port).fd(), &byte, 1));
    });
    EXPECT_TRUE(is_echoed(open));
    client.end();
    server.end();
}

TEST_F(hostile, a_revoked_client_loses_what_it_has_and_comes_back_no_more) {
    serve(echo);
    const std::string users = link.scratch().path("users");
    const auto user = [&](const std::string& what, const std::string& id) {
        return run({program(), "user", what, id, "--users", users});
    };
    const auto start = [&](const std::string& id) {
        const std::string secret = link.scratch().write(id, user("add", id));
        return joined(with(client_args(), "--secret", secret), {"--id", id});
    };
    const auto mallory_args = start("mallory"), alice_args = start("alice");
    process_t server = start_server(joined(without(link.server_args(), "--secret"), {"--users", users}));
    process_t mallory = start_client(mallory_args), alice = start_client(alice_args);
    const app::file_t lost = connect(wait_forward(mallory)), kept = connect(wait_forward(alice));
    ASSERT_TRUE(is_echoed(lost) && is_echoed(kept));
    user("remove", "mallory");
    char byte = 0;
    EXPECT_FALSE(read_all(lost.fd(), &byte, 1)) << "what was open ends";
    EXPECT_EQ(mallory.wait(), 1);
    EXPECT_NE(mallory.errors().find("wrong id or secret"), std::string::npos) << mallory.errors();
    EXPECT_TRUE(is_echoed(kept)) << "nobody else is concerned";
    alice.end();
    server.end();
}

}  // namespace
}  // namespace tandem::test
