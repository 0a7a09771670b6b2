#ifndef TANDEM_APP_VPN_SETTINGS_H
#define TANDEM_APP_VPN_SETTINGS_H

#include <optional>
#include <string>
#include <vector>

#include "forward/if_options.h"
#include "gateway/ip_network.h"

namespace tandem::app {

struct vpn_route_t {
    ip_network_t to;
    std::optional<ip_network_t> via;  // an address
};

// What an interface is to be like.
struct vpn_settings_t {
    std::string mode = "tun";
    std::string ifname;  // empty: the system's choice
    std::vector<ip_network_t> addresses;
    std::optional<ip_network_t> peer;  // the address at the other end of a tun interface
    unsigned mtu = 0;                  // 0: the system's choice
    std::vector<vpn_route_t> routes;
    // Commands as words, with %ifname% where the interface's name goes; empty: none.
    std::vector<std::string> up;
    std::vector<std::string> down;
};

// Reads the options mode, ifname, address, peer, mtu, route, and with `commands` also up and down. Returns what is
// wrong and how to mend it; empty when all is well.
std::string read_vpn_settings(const if_options_t& options, bool commands, vpn_settings_t& out);

// One VPN forward of the client: its own interface, and the options of the server's.
struct vpn_forward_t {
    vpn_settings_t local;
    std::string remote;
};

// `tun:NAME;option:value;...` (or tap:NAME; the name may be empty). The option `remote` holds the server's options, in
// quotes. The server's interface gets the mode and, unless its options say otherwise, the MTU of this side's. Returns
// what is wrong and how to mend it; empty when all is well.
std::string parse_vpn_forward(const std::string& text, vpn_forward_t& out);

}  // namespace tandem::app

#endif  // TANDEM_APP_VPN_SETTINGS_H
