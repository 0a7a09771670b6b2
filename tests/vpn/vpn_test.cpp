// The real program: datagrams from many sources, and interfaces that join two hosts over two links.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <optional>
#include <set>
#include <thread>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/namespaces.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

sockaddr_in at(const char* address, uint16_t port) {
    sockaddr_in out{};
    out.sin_family = AF_INET;
    out.sin_port = htons(port);
    inet_pton(AF_INET, address, &out.sin_addr);
    return out;
}

// A socket of the calling thread's namespace, bound to every address; it gives up after `patience`.
app::file_t bound_socket(int type, uint16_t& port) {
    app::file_t out(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address = at("0.0.0.0", 0);
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(out.fd(), reinterpret_cast<sockaddr*>(&address), length), 0);
    getsockname(out.fd(), reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return out;
}

app::file_t connected_socket(int type, const char* address, uint16_t port) {
    app::file_t out(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const timeval limit{patience.count(), 0};
    setsockopt(out.fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(out.fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    const sockaddr_in to = at(address, port);
    EXPECT_EQ(connect(out.fd(), reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 0) << strerror(errno);
    return out;
}

// Sends every datagram back.
class responder_t {
  public:
    responder_t()
        : stop_(eventfd(0, EFD_CLOEXEC)), socket_(bound_socket(SOCK_DGRAM, port_)), thread_([this] { run(); }) {}
    responder_t(const responder_t&) = delete;
    responder_t& operator=(const responder_t&) = delete;
    ~responder_t() {
        const uint64_t one = 1;
        EXPECT_EQ(write(stop_.fd(), &one, sizeof(one)), ssize_t{sizeof(one)});
        thread_.join();
    }
    uint16_t port() const { return port_; }

  private:
    void run() {
        for (;;) {
            pollfd fds[2] = {{stop_.fd(), POLLIN, 0}, {socket_.fd(), POLLIN, 0}};
            if (TEMP_FAILURE_RETRY(poll(fds, 2, -1)) < 0 || fds[0].revents != 0) return;
            char buffer[2048];
            sockaddr_in from{};
            socklen_t length = sizeof(from);
            auto* const source = reinterpret_cast<sockaddr*>(&from);
            const ssize_t size = recvfrom(socket_.fd(), buffer, sizeof(buffer), 0, source, &length);
            if (size >= 0) sendto(socket_.fd(), buffer, static_cast<size_t>(size), 0, source, length);
        }
    }

    uint16_t port_ = 0;
    app::file_t stop_;
    app::file_t socket_;
    std::thread thread_;
};

// Whether one datagram comes back; it is sent once.
bool answered(int fd, const std::string& text) {
    char buffer[2048];
    if (send(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) return false;
    const ssize_t size = TEMP_FAILURE_RETRY(recv(fd, buffer, sizeof(buffer), 0));
    return size >= 0 && std::string(buffer, static_cast<size_t>(size)) == text;
}

// Sends numbered datagrams to a responder, one every few milliseconds, as long as it lives, and looks at what returns.
class chatter_t {
  public:
    chatter_t(const char* address, uint16_t port)
        : socket_(connected_socket(SOCK_DGRAM, address, port)), thread_([this] { run(); }) {}
    chatter_t(const chatter_t&) = delete;
    chatter_t& operator=(const chatter_t&) = delete;
    // A path that dies loses nothing, but the interface's queue drops when a transfer beside fills it.
    ~chatter_t() {
        stop_ = true;
        thread_.join();
        EXPECT_GT(sent_, 20u);
        EXPECT_EQ(strange_, 0) << "twice, or changed on the way";
        EXPECT_GE(returned_.size(), sent_ - sent_ / 5) << "of " << sent_;
    }

  private:
    static std::string text(size_t number) { return std::to_string(number) + std::string(1000, '.'); }

    void run() {
        while (!stop_) {
            const std::string next = text(sent_);
            if (send(socket_.fd(), next.data(), next.size(), 0) == static_cast<ssize_t>(next.size())) ++sent_;
            take(5);
        }
        while (returned_.size() < sent_ && take(2000)) {
        }
    }

    bool take(int wait_ms) {
        pollfd ready{socket_.fd(), POLLIN, 0};
        if (TEMP_FAILURE_RETRY(poll(&ready, 1, wait_ms)) <= 0) return false;
        char buffer[2048];
        const ssize_t size = recv(socket_.fd(), buffer, sizeof(buffer), 0);
        if (size < 0) return false;
        const std::string got(buffer, static_cast<size_t>(size));
        const size_t number = std::strtoul(got.c_str(), nullptr, 10);
        strange_ += got == text(number) && number < sent_ && returned_.insert(number).second ? 0 : 1;
        return true;
    }

    app::file_t socket_;
    std::atomic<bool> stop_ = false;
    size_t sent_ = 0;
    std::set<size_t> returned_;
    int strange_ = 0;
    std::thread thread_;
};

std::vector<std::string> joined(std::vector<std::string> first, const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The client's arguments with another forward in the place of --tcp.
std::vector<std::string> client_args(const link_fixture_t& link, const std::string& option, const std::string& value,
                                     const std::string& host, const std::vector<std::string>& paths) {
    std::vector<std::string> args = with(link.client_args(1, host, paths), "--tcp", value);
    *std::find(args.begin(), args.end(), "--tcp") = option;
    return args;
}

void end(process_t& process) {
    process.signal(SIGTERM);
    EXPECT_EQ(process.wait(), 0) << process.errors();
}

uint16_t udp_port(process_t& process) {
    const std::string prefix = "forwarding udp 127.0.0.1:";
    const std::string line = process.wait_line(prefix);
    EXPECT_NE(line, "") << process.errors();
    return line.empty() ? uint16_t{0} : static_cast<uint16_t>(std::stoul(line.substr(prefix.size())));
}

TEST(udp_forward, a_thousand_new_sources_are_answered_at_the_first_try) {
    link_fixture_t link;
    responder_t responder;
    const std::string target = "127.0.0.1:" + std::to_string(responder.port());
    process_t server(joined(link.server_args(), {"--reverse", "udp:0=default:" + target}));
    process_t client(joined(client_args(link, "--udp", "0=" + target, "127.0.0.1", {"127.0.0.2", "127.0.0.3"}),
                            {"--allow", "udp 127.0.0.1 *"}));
    for (process_t* listener : {&client, &server}) {
        const uint16_t port = udp_port(*listener);
        int count = 0;
        for (int i = 0; i < 500; ++i) {
            const app::file_t source = connected_socket(SOCK_DGRAM, "127.0.0.1", port);
            count += answered(source.fd(), "query " + std::to_string(i));
        }
        EXPECT_EQ(count, 500);
        // An empty datagram is one, too.
        EXPECT_TRUE(answered(connected_socket(SOCK_DGRAM, "127.0.0.1", port).fd(), ""));
    }
    end(client);
    end(server);
}

// Two hosts joined by interfaces of this kind over two links, with services at the server's.
void join_hosts(const std::string& mode) {
    link_fixture_t link;
    namespaces_t nets;
    std::optional<service_t> service;
    std::optional<responder_t> responder;
    nets.at_server([&] {
        uint16_t port = 0;
        app::file_t listening = bound_socket(SOCK_STREAM, port);
        ASSERT_EQ(listen(listening.fd(), 8), 0);
        service.emplace(echo, std::move(listening), port);
        responder.emplace();
    });
    const std::string rule =
        "*;mode:" + mode + ";ifname:vpn*;address:10.8.0.0/24;peer:10.8.0.2;mtu:1400;route:10.9.0.0/16";
    process_t server(joined(joined(nets.in_server(), link.server_args()), {"--allow-vpn", rule}));
    ASSERT_NE(server.wait_line("listening"), "") << server.errors();
    const bool tap = mode == "tap";
    const std::string ours = tap ? "address:10.8.0.2/24" : "address:10.8.0.2/32;peer:10.8.0.1";
    const std::string theirs = tap ? "address:10.8.0.1/24;route:10.9.0.0/16 via 10.8.0.2"
                                   : "address:10.8.0.1/32;peer:10.8.0.2;route:10.9.0.0/16";
    const std::string device = mode + ":vpn0;" + ours + ";mtu:1400;route:10.7.0.0/16;up:ip addr add 10.9.0.2/32 dev " +
                               "%ifname%;down:ip route add blackhole 10.6.0.0/16;remote:'ifname:vpn1;" + theirs + "'";
    process_t client(
        joined(nets.in_client(), client_args(link, "--vpn", device, "10.77.9.1", {"10.77.1.2", "10.77.2.2"})));
    ASSERT_EQ(client.wait_line("forwarding vpn "), "forwarding vpn vpn0") << client.errors();

    // The server's interface is made by a worker, which tells nobody here.
    EXPECT_TRUE(comes_true([&] {
        process_t ping(joined(nets.in_client(), {"ping", "-c", "1", "-W", "1", "10.8.0.1"}));
        return ping.wait() == 0;
    })) << read_file(link.scratch().path("server.log"));
    run(joined(nets.in_server(), {"ping", "-c", "1", "-W", "30", "10.9.0.2"}));
    EXPECT_NE(run(joined(nets.in_client(), {"ip", "route", "get", "10.7.1.1"})).find("dev vpn0"), std::string::npos);
    const std::string shown = run(joined(nets.in_client(), {"ip", "address", "show", "vpn0"}));
    EXPECT_NE(shown.find("mtu 1400"), std::string::npos) << shown;
    EXPECT_NE(shown.find(tap ? "10.8.0.2/24" : "10.8.0.2 peer 10.8.0.1/32"), std::string::npos) << shown;
    nets.at_client([&] {
        const chatter_t chatter("10.8.0.1", responder->port());
        process_t ping({"ping", "-q", "-i", "0.01", "-c", "200", "-W", "20", "10.8.0.1"});
        const app::file_t stream = connected_socket(SOCK_STREAM, "10.8.0.1", service->port());
        EXPECT_EQ(exchange(
                      stream.fd(), 5, bulk_bytes / 4, [&] { nets.swallow(1); }, [&] { nets.carry(1); }),
                  "");
        const std::string pings = ping.wait_line("200 packets transmitted, ");
        // Beside a transfer that fills the interface's queue, which drops.
        EXPECT_GE(pings.empty() ? 0 : std::stoi(pings.substr(pings.find(',') + 1)), 160) << pings;
        EXPECT_EQ(pings.find("duplicates"), std::string::npos) << pings;
        EXPECT_EQ(ping.wait(), 0);
    });
    end(client);
    EXPECT_NE(run(joined(nets.in_client(), {"ip", "route"})).find("blackhole 10.6.0.0/16"), std::string::npos);
    EXPECT_TRUE(comes_true([&] {
        process_t show(joined(nets.in_server(), {"ip", "link", "show", "vpn1"}));
        return show.wait() == 1;
    })) << "the server's interface goes with the connection";
    end(server);
}

TEST(vpn, tun_interfaces_join_hosts_while_a_path_dies) {
    join_hosts("tun");
}

TEST(vpn, tap_interfaces_join_hosts_while_a_path_dies) {
    join_hosts("tap");
}

TEST(vpn, without_a_rule_no_interface_is_made) {
    link_fixture_t link;
    namespaces_t nets;
    process_t server = link.start_server(nets.in_server());
    process_t client(joined(nets.in_client(),
                            client_args(link, "--vpn", "tun:vpn0;remote:'ifname:vpn1'", "10.77.9.1", {"10.77.1.2"})));
    const std::string refused = "VPN interface refused: no rule allows default the option ";
    EXPECT_TRUE(
        comes_true([&] { return read_file(link.scratch().path("server.log")).find(refused) != std::string::npos; }));
    EXPECT_TRUE(client.wait_error("the server ended the VPN forward vpn0 before it carried anything"))
        << client.errors();
    run(joined(nets.in_server(), {"ip", "link", "show", "vpn1"}), 1);
    end(client);
    end(server);
}

// The link's own packets keep to their interfaces although everything else is led into the tunnel.
TEST(vpn, a_default_route_leaves_the_link_alone) {
    link_fixture_t link;
    namespaces_t nets;
    process_t server(joined(joined(nets.in_server(), link.server_args()), {"--allow-vpn", "*;address:10.8.0.0/24"}));
    ASSERT_NE(server.wait_line("listening"), "") << server.errors();
    const std::string device =
        "tun:vpn0;address:10.8.0.2/24;route:default;up:'sleep 1000';remote:'address:10.8.0.1/24'";
    process_t refused(joined(nets.in_client(), client_args(link, "--vpn", device, "10.77.9.1", {"10.77.1.2", "c2"})));
    EXPECT_EQ(refused.wait(), 2);
    EXPECT_NE(refused.errors().find("would lead the link's own packets"), std::string::npos) << refused.errors();
    run(joined(nets.in_client(), {"ip", "route", "add", "10.77.9.1", "via", "10.77.2.1", "dev", "c2", "metric", "9"}));
    process_t client(joined(nets.in_client(), client_args(link, "--vpn", device, "10.77.9.1", {"c1", "c2"})));
    ASSERT_NE(client.wait_line("forwarding vpn "), "") << client.errors();
    EXPECT_NE(run(joined(nets.in_client(), {"ip", "route", "get", "203.0.113.9"})).find("dev vpn0"), std::string::npos);
    EXPECT_TRUE(comes_true([&] {
        process_t ping(joined(nets.in_client(), {"ping", "-c", "1", "-W", "1", "10.8.0.1"}));
        return ping.wait() == 0;
    }));
    end(client);
    end(server);
}

}  // namespace
}  // namespace tandem::test
