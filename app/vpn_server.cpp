#include "app/vpn_server.h"

#include <net/if.h>

#include "app/vpn_interface.h"

namespace tandem::app {

bool vpn_server_t::admit(const std::string& client, const std::string& mode, const std::string& ifname,
                         const if_options_t& options, std::string& reason) {
    if_options_t all = options;
    all.emplace("mode", mode);
    if (!ifname.empty()) all.emplace("ifname", ifname);
    vpn_settings_t settings;
    reason = read_vpn_settings(all, false, settings);
    if (!reason.empty()) return false;
    for (const auto& [option, value] : all) {
        if (policy_->allows_vpn_option(client, option, value == "default" ? "0.0.0.0/0" : value)) continue;
        reason = "no rule allows " + client;
        reason.append(" the option ").append(option).append(":").append(value);
        return false;
    }
    if (!ifname.empty() && if_nametoindex(ifname.c_str()) != 0) {
        reason = "there is an interface " + ifname + " already";
        return false;
    }
    return true;
}

bool vpn_server_t::set_up(const std::string& ifname, const if_options_t& options, std::string& reason) {
    vpn_settings_t settings;
    netlink_t netlink;
    std::vector<ip_network_t> routes;
    reason = read_vpn_settings(options, false, settings);
    if (reason.empty()) reason = set_up_link(netlink, ifname, settings);
    if (reason.empty()) reason = set_up_routes(netlink, ifname, settings, routes);
    return reason.empty();
}

}  // namespace tandem::app
