#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

void expect_part(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << text << " does not tell " << part;
}

// Runs the program to its end: it has one line for the user, with this in it.
void complains(const std::vector<std::string>& args, const std::string& part, int expected_code = 1) {
    process_t process(args);
    EXPECT_EQ(process.wait(), expected_code) << process.errors();
    const std::string line = process.errors();
    EXPECT_EQ(count_lines(line), 1U) << line;
    EXPECT_EQ(process.rest_of_output(), "");
    expect_part(line, part);
}

TEST(program, wrong_options_give_one_line_and_code_2) {
    complains({program()}, "server, client, cert or user", 2);
    complains({program(), "client", "h", "--path", "p", "--tcp", "80"}, "--secret", 2);
    EXPECT_NE(run({program(), "client", "--help"}), "");
}

TEST(program, a_server_that_cannot_start_tells_why) {
    const link_fixture_t link;
    const auto args = link.server_args();
    complains(with(args, "--key", link.scratch().path("none")), "--key: cannot read");
    run({program(), "cert", "--out", link.scratch().path("other")});
    complains(with(args, "--key", link.scratch().path("other/key.pem")), "is not the key of");
    complains(with(args, "--secret", link.scratch().write("open", "x\n", 0644)), "chmod 600");
    complains(with(args, "--log", "/none/log"), "--log: cannot write /none/log");

    process_t first = link.start_server();
    complains(args, "UDP port " + std::to_string(link.port()) + " (Address already in use)");
    first.signal(SIGINT);
    EXPECT_EQ(first.wait(), 0) << "SIGINT ends it cleanly";
    EXPECT_EQ(first.errors(), "");
    expect_part(read_file(link.scratch().path("server.log")), "TNDM server instance started!");
}

TEST(program, a_client_that_cannot_start_tells_why) {
    const link_fixture_t link;
    uint16_t taken = 0;
    const app::file_t holder = listen_tcp(taken);
    const std::string port = std::to_string(taken);
    complains(with(link.client_args(1), "--tcp", port + "=h:80"), "cannot listen on TCP 127.0.0.1:" + port);
    complains(link.client_args(1, "no-such-host.invalid", {"127.0.0.2"}), "no-such-host.invalid does not resolve");
    complains(with(link.client_args(1), "--trust", "name:a;ca:/none"), "--trust: cannot use /none");
    complains(with(link.client_args(1), "--secret", link.scratch().write("empty", "")), "is empty");
}

TEST(program, a_path_that_is_missing_is_told_and_waited_for) {
    const link_fixture_t link;
    const service_t service(echo);
    process_t server = link.start_server();
    process_t client(link.client_args(service.port(), "127.0.0.1", {"none0", "192.0.2.1", "127.0.0.2"}));
    EXPECT_EQ(exchange(connect_tcp(wait_forward(client)).fd(), 1, 1000), "");
    const std::string told = client.errors();
    expect_part(told, "none0 is not there now");
    expect_part(told, "192.0.2.1 is not there now");
    EXPECT_EQ(count_lines(told), 2U) << told;
}

TEST(program, a_refused_client_ends_and_the_server_goes_on) {
    running_t running;
    const link_fixture_t& link = running.link;
    const auto args = link.client_args(running.service.port());
    complains(with(args, "--secret", link.scratch().write("wrong", "open says me\n")),
              "refused this client (wrong id or secret)");
    const std::string ca = "ca:" + link.scratch().path("tls/cert.pem");
    complains(with(args, "--trust", ca + ";name:other.example"), "not trusted");
    process_t client(with(args, "--trust", ca + ";name:localhost"));
    EXPECT_EQ(exchange(connect_tcp(wait_forward(client)).fd(), 1, 1000), "");
    client.end();
    EXPECT_EQ(client.errors(), "");
}

TEST(program, users_rules_and_listeners_at_the_server) {
    const link_fixture_t link;
    const service_t service(echo);
    const std::string users = link.scratch().path("users");
    const auto user = [&](const char* what, const std::string& id) {
        return run({program(), "user", what, id, "--users", users});
    };
    const std::string secret = link.scratch().write("alice", user("add", "alice"));
    user("add", "bob");
    EXPECT_EQ(run({program(), "user", "list", "--users", users}), "alice\nbob\n");

    const std::string target = "127.0.0.1:" + std::to_string(service.port());
    const std::string rules = link.scratch().write("rules", "allow alice tcp 127.0.0.0/8 *\n");
    auto args = with(link.server_args(), "--secret", users);
    *std::find(args.begin(), args.end(), "--secret") = "--users";
    args.erase(std::find(args.begin(), args.end(), "--allow"), args.end());
    args.insert(args.end(), {"--rules", rules, "--reverse", "tcp:0=alice:" + target});
    process_t server(args);
    const uint16_t reversed = wait_forward(server);
    auto client_args = with(link.client_args(service.port()), "--secret", secret);
    client_args.insert(client_args.end(), {"--id", "alice", "--allow", "tcp 127.0.0.1 *"});
    process_t client(client_args);
    const uint16_t port = wait_forward(client);
    EXPECT_EQ(exchange(connect_tcp(port).fd(), 1, 1000), "");
    EXPECT_EQ(exchange(connect_tcp(reversed).fd(), 1, 1000), "");

    link.scratch().write("rules", "allow bob tcp 127.0.0.0/8 *\n");
    EXPECT_TRUE(server.wait_error("the rules are read again"));
    EXPECT_NE(exchange(connect_tcp(port).fd(), 1, 1000), "") << "the target is denied now";
    client.end();
    server.end();
}

TEST(program, a_server_that_is_not_trusted_gets_no_secret) {
    const link_fixture_t link;
    process_t server = link.start_server();
    const auto args = link.client_args(1);
    const std::string cure = "give --trust the pin";
    complains(with(args, "--trust", "pin:" + std::string(64, '0')), cure);
    complains(with(args, "--trust", ""), cure);
    const std::string log = read_file(link.scratch().path("server.log"));
    EXPECT_EQ(log.find("context"), std::string::npos) << "no connection may come up: " << log;
}

}  // namespace
}  // namespace tandem::test
