#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <numeric>
#include <string>
#include <vector>

#include "platform/tndm/udp/batch_receiver.h"
#include "platform/tndm/udp/batch_sender.h"
#include "platform/tndm/udp/socket.h"

namespace tndm {
namespace {

class path_socket {
  public:
    explicit path_socket(int family = AF_INET, const char* path = "127.0.0.1", uint16_t port = 0)
        : fd_(open_path_socket(family, port, path)), error_(fd_ < 0 ? errno : 0) {}
    path_socket(const path_socket&) = delete;
    path_socket& operator=(const path_socket&) = delete;
    ~path_socket() {
        if (fd_ >= 0) close(fd_);
    }
    int fd() const { return fd_; }
    int error() const { return error_; }
    endpoint bound() const { return local_endpoint(fd_); }

  private:
    int fd_;
    int error_;
};

struct arrival {
    std::vector<uint8_t> data;
    endpoint remote;
    endpoint local;
    uint8_t ecn;
};

/* What arrives until `bytes` have, or nothing comes for two seconds. */
std::vector<arrival> collect(int fd, size_t bytes) {
    batch_receiver receiver;
    std::vector<arrival> result;
    size_t total = 0;
    pollfd wait{fd, POLLIN, 0};
    while (total < bytes && poll(&wait, 1, 2000) == 1) {
        const int messages = receiver.receive(fd, [&](const received_datagram& datagram) {
            total += datagram.data.size();
            result.push_back(
                {{datagram.data.begin(), datagram.data.end()}, datagram.remote, datagram.local, datagram.ecn});
        });
        EXPECT_GE(messages, 0) << strerror(errno);
        if (messages < 0) break;
    }
    return result;
}

std::vector<uint8_t> pattern(size_t size) {
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<uint8_t>(i * 7 + i / 251);
    return data;
}

/* Sends a run, reads it back and checks that the datagrams have the sizes and the bytes that they had. */
void round_trip(batch_sender& sender, const path_socket& from, const path_socket& to, size_t size, size_t segment) {
    SCOPED_TRACE(std::to_string(size) + " bytes in segments of " + std::to_string(segment));
    const auto sent = pattern(size);
    const send_result result = sender.send(from.fd(), to.bound(), nullptr, sent, segment, 2);
    ASSERT_EQ(result.status, send_status::sent) << strerror(result.error);
    ASSERT_EQ(result.bytes, size);

    std::vector<uint8_t> joined;
    for (const arrival& datagram : collect(to.fd(), size)) {
        EXPECT_EQ(datagram.data.size(), std::min(segment, size - joined.size()));
        EXPECT_EQ(datagram.remote, from.bound()) << datagram.remote.text();
        EXPECT_TRUE(same_host(datagram.local, to.bound())) << datagram.local.text();
        EXPECT_EQ(datagram.ecn, 2);
        joined.insert(joined.end(), datagram.data.begin(), datagram.data.end());
    }
    EXPECT_EQ(joined, sent);
}

TEST(batch, every_run_arrives_as_it_was_cut) {
    for (const auto& [family, path] : {std::pair{AF_INET, "127.0.0.1"}, std::pair{AF_INET6, "::1"}}) {
        path_socket from(family, path);
        path_socket to(family, path);
        ASSERT_GE(from.fd(), 0) << strerror(from.error());
        ASSERT_GE(to.fd(), 0) << strerror(to.error());
        for (const bool segmentation : {true, false}) {
            SCOPED_TRACE(segmentation ? "segmentation" : "singly");
            batch_sender sender(segmentation);
            round_trip(sender, from, to, 1200, 1200);
            round_trip(sender, from, to, 44 * 1444, 1444);
            round_trip(sender, from, to, 10 * 1200 + 1, 1200);
            round_trip(sender, from, to, 200 * 100, 100);       /* more segments than one call takes */
            round_trip(sender, from, to, 100 * 1400 + 7, 1400); /* more bytes than one call takes */
            EXPECT_EQ(sender.segmentation(), segmentation);
        }
    }
}

TEST(batch, segmentation_that_the_kernel_refuses_is_given_up) {
    path_socket from;
    path_socket to;
    /* Without checksums there is no segmentation offload, while single datagrams still go out. */
    const int on = 1;
    ASSERT_EQ(setsockopt(from.fd(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof on), 0);
    batch_sender sender;
    round_trip(sender, from, to, 1200, 1200);
    EXPECT_TRUE(sender.segmentation());
    round_trip(sender, from, to, 10 * 1200 + 1, 1200);
    EXPECT_FALSE(sender.segmentation());
    round_trip(sender, from, to, 10 * 1200 + 1, 1200);
}

TEST(batch, an_ipv6_socket_serves_ipv4_peers) {
    path_socket server(AF_INET6, "");
    path_socket client;
    ASSERT_GE(server.fd(), 0);
    batch_sender sender;
    const auto data = pattern(3000);
    const auto target = *endpoint::parse("127.0.0.3", server.bound().port());
    ASSERT_EQ(sender.send(client.fd(), target, nullptr, data, 1000, 1).status, send_status::sent);
    const auto asked = collect(server.fd(), 3000);
    ASSERT_EQ(asked.size(), 3u);
    EXPECT_EQ(asked[0].ecn, 1);
    EXPECT_EQ(asked[0].local.host_text(), "::ffff:127.0.0.3");

    ASSERT_EQ(sender.send(server.fd(), asked[0].remote, &asked[0].local, data, 1000, 2).status, send_status::sent);
    const auto answered = collect(client.fd(), 3000);
    ASSERT_EQ(answered.size(), 3u);
    EXPECT_EQ(answered[0].remote, target) << answered[0].remote.text();
    EXPECT_EQ(answered[0].ecn, 2);
}

TEST(batch, a_given_source_address_is_used) {
    path_socket from(AF_INET, nullptr);
    path_socket to;
    batch_sender sender;
    const auto data = pattern(2400);
    const auto source = *endpoint::parse("127.0.0.2", 0);
    ASSERT_EQ(sender.send(from.fd(), to.bound(), &source, data, 1200, 0).status, send_status::sent);
    for (const arrival& datagram : collect(to.fd(), data.size()))
        EXPECT_EQ(datagram.remote.text(), "127.0.0.2:" + std::to_string(from.bound().port()));

    /* An address that is not this machine's: one peer's packet is lost, the socket and its segmentation stay. */
    const auto foreign = *endpoint::parse("192.0.2.77", 0);
    const send_result lost = sender.send(from.fd(), to.bound(), &foreign, data, 1200, 0);
    EXPECT_EQ(lost.status, send_status::dropped) << strerror(lost.error);
    EXPECT_EQ(lost.bytes, 0u);
    EXPECT_TRUE(sender.segmentation());
}

TEST(batch, a_full_buffer_blocks_at_a_datagram_boundary) {
    for (const bool segmentation : {true, false}) {
        int pair[2];
        /* Loopback UDP never fills the sender's buffer (the receiver drops), a local datagram socket does. */
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, pair), 0);
        batch_sender sender(segmentation);
        const auto data = pattern(1000 * 50 + 10);
        endpoint connected; /* empty: the peer that the socket is connected to */
        size_t sent = 0;
        send_result result{};
        for (int i = 0; i < 1000 && result.status == send_status::sent; ++i) {
            result = sender.send(pair[0], connected, nullptr, data, 1000, 0);
            sent += result.bytes;
        }
        EXPECT_EQ(result.status, send_status::would_block) << strerror(result.error);
        EXPECT_TRUE(result.bytes % 1000 == 0 && result.bytes < data.size()) << result.bytes;

        size_t arrived = 0;
        std::vector<uint8_t> buffer(65536);
        for (ssize_t n; (n = recv(pair[1], buffer.data(), buffer.size(), 0)) > 0;)
            arrived += static_cast<size_t>(n);
        EXPECT_EQ(arrived, sent);
        close(pair[0]);
        close(pair[1]);
    }
}

TEST(batch, errors_part_lost_packets_from_dead_sockets) {
    batch_sender sender;
    const auto data = pattern(65000);
    {
        path_socket from(AF_INET, nullptr);
        const auto peer = path_socket().bound();
        EXPECT_EQ(sender.send(from.fd(), peer, nullptr, data, 0, 0).status, send_status::dropped);
        EXPECT_EQ(sender.send(from.fd(), peer, nullptr, data, 70000, 0).status, send_status::dropped);
        const auto v6 = *endpoint::parse("::1", 9);
        EXPECT_EQ(sender.send(from.fd(), v6, nullptr, data, 1200, 0).status, send_status::broken);
    }
    const send_result closed = sender.send(-1, path_socket().bound(), nullptr, data, 1200, 0);
    EXPECT_EQ(closed.status, send_status::broken);
    EXPECT_EQ(closed.error, EBADF);
    batch_receiver receiver;
    EXPECT_EQ(receiver.receive(-1, [](const received_datagram&) {}), -1);
    EXPECT_EQ(errno, EBADF);
    path_socket idle;
    EXPECT_EQ(receiver.receive(idle.fd(), [](const received_datagram&) {}), 0);
}

TEST(path, binds_to_what_the_text_names) {
    const path_socket by_address(AF_INET, "127.0.0.9;backup:yes");
    EXPECT_EQ(by_address.bound().host_text(), "127.0.0.9");
    const path_socket by_port(AF_INET, "", by_address.bound().port());
    EXPECT_EQ(by_port.error(), EADDRINUSE);
    const path_socket only_options(AF_INET, ";backup:yes");
    EXPECT_TRUE(only_options.bound().is_wildcard());
    const path_socket v6(AF_INET6, "::1");
    EXPECT_EQ(v6.bound().host_text(), "::1");

    const path_socket by_interface(AF_INET, "lo;backup:yes");
    ASSERT_GE(by_interface.fd(), 0) << strerror(by_interface.error());
    char device[16] = "";
    socklen_t length = sizeof device;
    ASSERT_EQ(getsockopt(by_interface.fd(), SOL_SOCKET, SO_BINDTODEVICE, device, &length), 0);
    EXPECT_TRUE(std::string(device) == "lo" || by_interface.bound().host_text() == "127.0.0.1");

    EXPECT_EQ(path_socket(AF_INET, "nosuch0").error(), ENODEV);
    EXPECT_EQ(path_socket(AF_INET, "an-interface-name-that-is-far-too-long").error(), ENODEV);
    EXPECT_EQ(path_socket(AF_INET, "192.0.2.77").error(), EADDRNOTAVAIL);
    EXPECT_EQ(path_socket(AF_INET, "::1").error(), EAFNOSUPPORT);
    EXPECT_EQ(path_socket(AF_UNIX, "").error(), EAFNOSUPPORT);
}

TEST(path, sockets_do_not_block_fragment_or_leak) {
    const path_socket socket;
    EXPECT_NE(fcntl(socket.fd(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(socket.fd(), F_GETFD) & FD_CLOEXEC, 0);
    int mode = 0;
    socklen_t length = sizeof mode;
    ASSERT_EQ(getsockopt(socket.fd(), IPPROTO_IP, IP_MTU_DISCOVER, &mode, &length), 0);
    EXPECT_EQ(mode, IP_PMTUDISC_PROBE);
}

TEST(address, texts_and_equality) {
    EXPECT_EQ(endpoint::parse("192.0.2.1", 443)->text(), "192.0.2.1:443");
    EXPECT_EQ(endpoint::parse("2001:db8::1", 443)->text(), "[2001:db8::1]:443");
    EXPECT_EQ(endpoint::parse("fe80::1%lo", 1)->host_text(), "fe80::1%lo");
    EXPECT_EQ(endpoint().text(), "-");
    for (const char* wrong : {"", "localhost", "192.0.2", "192.0.2.1:80", "[::1]", "fe80::1%nosuch0"})
        EXPECT_FALSE(endpoint::parse(wrong, 1)) << wrong;

    const auto a = *endpoint::parse("192.0.2.1", 443);
    auto b = endpoint(a.address(), a.length);
    EXPECT_EQ(a, b);
    EXPECT_EQ(endpoint_hash{}(a), endpoint_hash{}(b));
    b.set_port(444);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(same_host(a, b));
    EXPECT_FALSE(a == *endpoint::parse("::ffff:192.0.2.1", 443));
    EXPECT_FALSE(endpoint() == *endpoint::parse("0.0.0.0", 0));
    EXPECT_TRUE(endpoint(a.address(), 4).empty());
}

}  // namespace
}  // namespace tndm
