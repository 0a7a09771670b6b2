#include <gtest/gtest.h>

#include "app/command_line.h"
#include "app/endpoint.h"
#include "app/failure.h"
#include "app/trust.h"

namespace tandem::app {
namespace {

command_t parse(std::vector<const char*> args) {
    args.insert(args.begin(), "tandem");
    return parse_command_line(static_cast<int>(args.size()), args.data());
}

std::vector<const char*> client_args(std::vector<const char*> more) {
    std::vector<const char*> args = {"client", "host", "--secret", "s", "--path", "eth0", "--tcp", "80=web:80"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

TEST(endpoint, takes_names_and_addresses_with_and_without_a_port) {
    const auto text = [](std::string_view from) {
        const auto endpoint = parse_endpoint(from, 14002);
        return endpoint ? endpoint->text() : "nothing";
    };
    EXPECT_EQ(text("gate.example"), "gate.example:14002");
    EXPECT_EQ(text("10.0.0.1:7"), "10.0.0.1:7");
    EXPECT_EQ(text("[::1]:65535"), "[::1]:65535");
    EXPECT_EQ(text("[fe80::2]"), "[fe80::2]:14002");
    EXPECT_EQ(parse_endpoint("[::1]:80")->host, "::1") << "what is resolved has no brackets";
    for (const char* wrong :
         {"", ":80", "host:", "host:0", "host:65536", "host:80x", "host:+80", "host: 80", "::1", "::1:80", "[::1",
          "[::1]80", "[10.0.0.1]:80", "[]:80", "a b:80", "host\n:80", "-host:80", "h/x:80"}) {
        EXPECT_EQ(text(wrong), "nothing") << wrong;
    }
    EXPECT_FALSE(parse_endpoint("host")) << "without a default a port is needed";
    EXPECT_FALSE(parse_endpoint(std::string(254, 'a'), 1));
}

TEST(tcp_forward, reads_where_to_listen_and_what_to_reach) {
    const auto text = [](std::string_view from) {
        const auto forward = parse_tcp_forward(from);
        return forward ? forward->listen.text() + " -> " + forward->target.text() : "nothing";
    };
    EXPECT_EQ(text("8080=web:80"), "127.0.0.1:8080 -> web:80");
    EXPECT_EQ(text("0=127.0.0.1:80"), "127.0.0.1:0 -> 127.0.0.1:80");
    EXPECT_EQ(text("localhost:1=h:2"), "127.0.0.1:1 -> h:2");
    EXPECT_EQ(text("*:8080=[::1]:80"), "0.0.0.0:8080 -> [::1]:80");
    EXPECT_EQ(text("[::]:8080=[fe80::1]:80"), "[::]:8080 -> [fe80::1]:80");
    for (const char* wrong :
         {"", "=", "8080", "8080=", "=h:80", "8080=h", "8080=h:0", "65536=h:80", "[::1]=h:80", "name:80=h:80",
          "::1:80=h:80", "[127.0.0.1]:80=h:80", "8080=h:80=x", "8080=::1:80", ":8080=h:80"}) {
        EXPECT_EQ(text(wrong), "nothing") << wrong;
    }
}

TEST(trust, finds_what_the_transport_would_misread) {
    const std::string pin = "pin:" + std::string(64, 'a');
    for (const std::string& right :
         {std::string(), pin, pin + ";", std::string("ca:/etc/ca.pem;name:gate"), std::string("insecure:yes")}) {
        EXPECT_EQ(trust_fault(right), "") << right;
    }
    for (const std::string& wrong :
         {std::string("pin:abc"), "pin:" + std::string(64, 'g'), pin + "a", std::string("insecure:no"),
          std::string("insecure"), std::string("ca:"), std::string("pins:x"), std::string("yes"),
          "ca:" + std::string(125, 'x'), std::string("ca:a\nb")}) {
        EXPECT_NE(trust_fault(wrong), "") << wrong;
    }
    EXPECT_EQ(trust_fault("ca:" + std::string(124, 'x')), "") << "127 bytes fit";
}

TEST(command_line, fills_the_commands) {
    const auto client =
        std::get<client_command_t>(parse(client_args({"--path", "10.0.0.1", "--tcp", "[::1]:81=h:82"})));
    EXPECT_EQ(client.paths, (std::vector<std::string>{"eth0", "10.0.0.1"}));
    ASSERT_EQ(client.forwards.tcp.size(), 2U);
    EXPECT_EQ(client.forwards.tcp[1].listen.text(), "[::1]:81");
    const auto named = parse({"client", "server", "--secret", "s", "--path", "p", "--tcp", "1=h:2"});
    EXPECT_EQ(std::get<client_command_t>(named).server.host, "server") << "a host may have a command's name";

    const auto cert = std::get<cert_command_t>(parse({"cert", "--out", "d", "--name", "a", "--name", "::1"}));
    EXPECT_EQ(cert.names, (std::vector<std::string>{"a", "::1"}));
    EXPECT_NE(std::get<show_text_t>(parse({"client", "--help"})).text.find("--tcp"), std::string::npos);
    EXPECT_EQ(std::get<show_text_t>(parse({"--version"})).text, "tandem " TANDEM_VERSION "\n");
}

TEST(command_line, tells_what_is_wrong_in_one_line_that_names_it) {
    const std::string too_long_path(128, 'p');
    const std::vector<std::pair<std::vector<const char*>, const char*>> cases = {
        {{}, "command ''"},
        {{"serve"}, "command 'serve'"},
        {{"server", "--key", "k", "--secret", "s"}, "--cert"},
        {{"server", "--cert", "c", "--key", "k", "--secret", "s", "--listen", "::1:9"}, "--listen '::1:9'"},
        {{"server", "--cert", "c", "--key", "k", "--secret", "s", "--listen", "66000"}, "--listen '66000'"},
        {{"client", "host", "--secret", "s", "--tcp", "80=h:80"}, "--path"},
        {{"client", "host", "--secret", "s", "--path", "p"}, "--tcp"},
        {{"client", "h:x", "--secret", "s", "--path", "p", "--tcp", "80=h:80"}, "server 'h:x'"},
        {client_args({"--tcp", "80"}), "--tcp '80'"},
        {client_args({"--path", "eth0"}), "--path 'eth0'"},
        {client_args({"--path", too_long_path.c_str()}), "--path 'ppp"},
        {client_args({"--path", "a\nb"}), "--path 'a?b'"},
        {client_args({"--path", "eth1;backup"}), "--path 'eth1;backup'"},
        {client_args({"--path", "eth0;backup:yes"}), "is given twice"},
        {client_args({"--schedule", "fast"}), "--schedule 'fast'"},
        {client_args({"--trust", "pin:1"}), "--trust 'pin:1'"},
        {client_args({"--congestion", "fast"}), "--congestion 'fast'"},
        {client_args({"--alpn", ""}), "--alpn ''"},
        {client_args({"--what"}), "--what"},
        {{"cert"}, "--out"},
        {{"cert", "--out", "d", "--name", "a b"}, "--name 'a b'"},
    };
    for (const auto& [args, named] : cases) {
        try {
            parse(args);
            ADD_FAILURE() << "taken, though " << named << " is wrong";
        } catch (const failure_t& failure) {
            EXPECT_EQ(failure.exit_code(), 2);
            EXPECT_NE(std::string(failure.what()).find(named), std::string::npos) << failure.what();
            EXPECT_EQ(std::string(failure.what()).find('\n'), std::string::npos) << failure.what();
        }
    }
}

}  // namespace
}  // namespace tandem::app
