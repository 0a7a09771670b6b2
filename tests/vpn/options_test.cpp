// The option texts of the client, and the server's rules about them.
#include <gtest/gtest.h>

#include "app/forward_options.h"
#include "gateway/vpn_rules.h"

namespace tandem::app {
namespace {

TEST(vpn_options, say_what_both_interfaces_are_like) {
    vpn_forward_t forward;
    ASSERT_EQ(parse_vpn_forward("tun:vpn0;address:10.8.0.2;peer:10.8.0.1;address:fd00::2/64;mtu:1400;"
                                "route:10.20.3.4/16; route: default via fd00::1 ;up:logger -t %ifname% 'a b';"
                                "remote:'ifname:vpns;address:10.8.0.1'",
                                forward),
              "");
    const vpn_settings_t& local = forward.local;
    EXPECT_EQ(local.mode + " " + local.ifname, "tun vpn0");
    ASSERT_EQ(local.addresses.size(), 2U);
    EXPECT_EQ(local.addresses[1].text(), "fd00::2/64");
    ASSERT_EQ(local.routes.size(), 2U);
    EXPECT_EQ(local.routes[0].to.text(), "10.20.0.0/16");
    EXPECT_EQ(local.routes[1].to.text() + " " + local.routes[1].via->text(), "::/0 fd00::1");
    EXPECT_EQ(local.up, (std::vector<std::string>{"logger", "-t", "%ifname%", "a", "b"}));
    EXPECT_EQ(forward.remote, "mode:tun;mtu:1400;ifname:vpns;address:10.8.0.1");
}

TEST(vpn_options, faults_name_the_option) {
    const struct {
        const char* text;
        const char* begin;
    } cases[] = {
        {"address:10.8.0.2", "begin with tun:NAME"},
        {"tun:a;tap:b", "mode: is given twice"},
        {"tun:longer-than-it-may-be", "ifname:"},
        {"tun:a;adress:10.8.0.2", "adress: is no option"},
        {"tun:a;address:10.8.0.300", "address:"},
        {"tun:a;address:10.8.0.2/33", "address:"},
        {"tun:a;peer:10.8.0.1", "peer: give an address of the same kind"},
        {"tun:a;address:10.8.0.2;peer:10.8.0.0/24", "peer:"},
        {"tun:a;mtu:67", "mtu:"},
        {"tun:a;mtu:1400x", "mtu:"},
        {"tun:a;route:10.0.0.0/8 via fd00::1", "route:"},
        {"tun:a;route:10.0.0.0/8 dev eth0", "route:"},
        {"tun:a;up:", "up:"},
        {"tun:a;remote:'up:reboot'", "remote: up: commands run only where"},
        {"tun:a;remote:'mode:tap'", "remote: mode must be tun"},
        {"tun:a;remote:'address:10.8.0.1", "close every quote"},
    };
    for (const auto& one : cases) {
        vpn_forward_t forward;
        EXPECT_EQ(parse_vpn_forward(one.text, forward).rfind(one.begin, 0), 0U) << one.text;
    }
}

TEST(vpn_options, a_route_must_not_swallow_the_link) {
    typed_forwards_t typed;
    typed.vpn = {"tun:a;route:default"};
    const forwards_t forwards = checked_forwards(typed);
    EXPECT_EQ(swallowed_server(forwards, "192.0.2.1", {"eth0", "wwan0"}), "");
    EXPECT_NE(swallowed_server(forwards, "192.0.2.1", {"eth0", "10.0.0.7"}).find("10.0.0.7"), std::string::npos);
    typed.vpn = {"tun:a;route:10.20.0.0/16"};
    EXPECT_EQ(swallowed_server(checked_forwards(typed), "192.0.2.1", {"10.0.0.7"}), "");
}

TEST(vpn_rules, allow_what_lies_inside_and_nothing_without_a_rule) {
    vpn_rules_t rules;
    EXPECT_FALSE(rules.allows_vpn_option("alice", "mode", "tun"));
    EXPECT_EQ(rules.add("alice;ifname:vpn*,office;address:10.8.0.0/24,fd00::/64;mtu:1500;route:10.20.0.0/16"), "");
    EXPECT_EQ(rules.add("*;mode:tap"), "");
    const struct {
        const char* client;
        const char* option;
        const char* value;
        bool allowed;
    } cases[] = {
        {"alice", "mode", "tun", true},
        {"alice", "mode", "tap", true},
        {"bob", "mode", "tun", false},
        {"bob", "address", "10.8.0.2", false},
        {"alice", "ifname", "vpn7", true},
        {"alice", "ifname", "eth0", false},
        {"alice", "address", "10.8.0.2/24", true},
        {"alice", "address", "10.8.0.2/8", false},  // its network is wider than what is allowed
        {"alice", "address", "10.8.1.2", false},
        {"alice", "address", "fd00::2", true},
        {"alice", "address", "::ffff:10.8.0.2", false},
        {"alice", "peer", "10.8.0.1", false},
        {"alice", "mtu", "1500", true},
        {"alice", "mtu", "1501", false},
        {"alice", "route", "10.20.7.0/24 via 10.8.0.2", true},
        {"alice", "route", "0.0.0.0/0", false},
        {"alice", "up", "reboot", false},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(rules.allows_vpn_option(one.client, one.option, one.value), one.allowed)
            << one.client << " " << one.option << " " << one.value;
    }
    for (const char* wrong : {"", "address:10.8.0.0/24", "*;address:10.8", "*;up:reboot", "*;mtu:0", "*;mode:tan"}) {
        EXPECT_NE(rules.add(wrong), "") << wrong;
    }
}

}  // namespace
}  // namespace tandem::app
