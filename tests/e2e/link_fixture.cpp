#include "tests/e2e/link_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tandem::test {

std::string program() {
    return TANDEM_PROGRAM;
}

link_fixture_t::link_fixture_t() : secret_(scratch_.write("secret", "open sesame\n")), port_(free_udp_port()) {
    const std::string printed = run({program(), "cert", "--out", scratch_.path("tls"), "--name", "localhost"});
    const size_t at = printed.find("pin:");
    if (at != std::string::npos) pin_ = printed.substr(at, 4 + 64);
}

link_fixture_t::~link_fixture_t() {
    for (const char* name : {"server.log", "client.log"}) {
        const std::string log = read_file(scratch_.path(name));
        for (const char* sign : {"Sanitizer", "runtime error:"}) {
            const size_t at = log.find(sign);
            EXPECT_EQ(at, std::string::npos) << name << ": " << log.substr(std::min(at, log.size()), 8000);
        }
    }
}

std::vector<std::string> link_fixture_t::server_args() const {
    return {program(),  "server",
            "--cert",   scratch_.path("tls/cert.pem"),
            "--key",    scratch_.path("tls/key.pem"),
            "--secret", secret_,
            "--listen", std::to_string(port_),
            "--log",    scratch_.path("server.log"),
            "--allow",  "* * 127.0.0.0/8 *",
            "--allow",  "* * * *"};
}

process_t link_fixture_t::start_server(const std::vector<std::string>& before) const {
    std::vector<std::string> args = before;
    const auto own = server_args();
    args.insert(args.end(), own.begin(), own.end());
    process_t server(args);
    const std::string ready = "listening on UDP port " + std::to_string(port_);
    EXPECT_EQ(server.wait_line("listening"), ready) << server.errors();
    return server;
}

std::vector<std::string> link_fixture_t::client_args(uint16_t target_port, const std::string& host,
                                                     const std::vector<std::string>& paths) const {
    std::vector<std::string> args = {program(), "client", host + ":" + std::to_string(port_)};
    const std::string forward = "0=127.0.0.1:" + std::to_string(target_port);
    args.insert(args.end(), {"--secret", secret_, "--trust", pin_, "--tcp", forward});
    args.insert(args.end(), {"--log", scratch_.path("client.log")});
    for (const std::string& path : paths)
        args.insert(args.end(), {"--path", path});
    return args;
}

std::vector<std::string> link_fixture_t::client_args(uint16_t target_port) const {
    return client_args(target_port, "127.0.0.1", {"127.0.0.2", "127.0.0.3"});
}

uint16_t wait_forward(process_t& client) {
    const std::string prefix = "forwarding tcp 127.0.0.1:";
    const std::string line = client.wait_line(prefix);
    EXPECT_NE(line, "") << client.errors();
    return line.empty() ? uint16_t{0} : static_cast<uint16_t>(std::stoul(line.substr(prefix.size())));
}

running_t::running_t(service_t::handler_t handler)
    : service(std::move(handler)), server(link.start_server()), client(link.client_args(service.port())) {
    port = wait_forward(client);
}

running_t::~running_t() {
    client.end();
    server.end();
}

std::vector<std::string> with(std::vector<std::string> args, const std::string& option, const std::string& value) {
    const auto at = std::find(args.begin(), args.end(), option);
    EXPECT_NE(at, args.end()) << option;
    if (at != args.end()) *(at + 1) = value;
    return args;
}

}  // namespace tandem::test
