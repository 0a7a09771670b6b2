// The sockets and the option text.
#include <set>

#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

using sockets = forward_fixture;

bool is_nonblocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

TEST_F(sockets, report_their_port_take_names_for_interfaces_and_connect) {
    unsigned short port = 0, udp_port = 0, port6 = 0;
    const fd_t listener(context->open_tcp_listen_socket("127.0.0.1", &port));
    EXPECT_TRUE(listener >= 0 && is_nonblocking(listener) && port != 0);
    EXPECT_EQ(context->open_tcp_listen_socket("127.0.0.1", &port), -1);
    const fd_t client(context->open_tcp_connect_socket("127.0.0.1", port));
    EXPECT_TRUE(client >= 0 && is_nonblocking(client));
    const fd_t ipv6(context->open_tcp_listen_socket("[*]", &port6));
    EXPECT_TRUE(ipv6 < 0 || port6 != 0);

    EXPECT_EQ(printed([&] {
                  const fd_t by_name(context->open_udp_socket("eth-none", &udp_port));
                  EXPECT_TRUE(by_name >= 0 && is_nonblocking(by_name) && udp_port != 0);
                  EXPECT_EQ(context->open_tcp_connect_socket(nullptr), -1);
                  std::string ifname;
                  EXPECT_EQ(context->open_tuntap_vpn("/dev/does-not-exist", ifname, "tun"), -1);
              }),
              "[open_udp_socket:1572]Open UDP Socket - Optimized socket sender receive buffer to 524288\n"
              "[open_udp_socket:1605]Open UDP Socket - WARNING! Failed to bind to specified net interface (eth-none)\n"
              "[open_tcp_connect_socket:1495]Open TCP Connect Socket - ERROR! Invalid socket address.\n"
              "[open_tuntap_vpn:1623]Open TUN/TAP VPN - ERROR! Failed to open device (/dev/does-not-exist)\n");
}

TEST_F(sockets, no_two_of_the_systems_choice_share_a_port_where_nothing_may_get_lost) {
    context->set_delivery(tandem::delivery_t::lossless);
    std::vector<fd_t> open;
    std::set<unsigned short> ports;
    for (int i = 0; i < 900; ++i) {
        unsigned short port = 0;
        ASSERT_GE(open.emplace_back(context->open_udp_socket("127.0.0.1", &port)), 0);
        EXPECT_TRUE(ports.insert(port).second) << port;
    }
}

TEST_F(sockets, option_texts) {
    const struct {
        const char* text;
        options_t expected;
    } cases[] = {
        {"", {}},
        {"a:1;a:2", {{"a", "1"}, {"a", "2"}}},
        {"k", {}},
        {"k:", {{"k", ""}}},
        {"k:\"a;b\"", {{"k", "a;b"}}},
        {":v;k:w", {{"k", "w"}}},
        {";x:1", {{";x", "1"}}},
        {"k:'it\"s", {{"k", "it\"s"}}},
        {"k:a'b c'd ; l : ' '", {{"k", "ab cd "}, {"l", " "}}},
        {"ifname: vpn0; mode:'tap' ; up:ip link set %ifname% up",
         {{"ifname", "vpn0"}, {"mode", "tap "}, {"up", "ip link set %ifname% up"}}},
    };
    for (const auto& one : cases) {
        options_t options = {{"stale", "entry"}};
        EXPECT_EQ(context->parse_if_options(one.text, options), static_cast<int>(one.expected.size())) << one.text;
        EXPECT_EQ(options, one.expected) << one.text;
    }
    options_t none;
    EXPECT_FALSE(context->base::set_if_options("", none));
    EXPECT_TRUE(context->base::set_if_options("tun0", none));
}

}  // namespace
}  // namespace forward_test
