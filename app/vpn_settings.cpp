#include "app/vpn_settings.h"

#include <net/if.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <map>
#include <sstream>

namespace tandem::app {
namespace {

constexpr unsigned least_mtu = 68;
constexpr unsigned most_mtu = 65535;

// An interface's name as the kernel takes it.
bool is_interface_name(const std::string& name) {
    if (name.size() >= IFNAMSIZ || name == "." || name == "..") return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f && c != '/' && c != ':'; });
}

std::string take_mode(const std::string& value, vpn_settings_t& out) {
    if (value != "tun" && value != "tap") return "mode: give tun or tap";
    out.mode = value;
    return {};
}

std::string take_name(const std::string& value, vpn_settings_t& out) {
    if (!is_interface_name(value)) return "ifname: give at most 15 characters, for example vpn0";
    out.ifname = value;
    return {};
}

std::string take_address(const std::string& value, vpn_settings_t& out) {
    const auto address = ip_network_t::parse(value);
    if (!address) return "address: give an address with its network's length, for example 10.8.0.2/24";
    out.addresses.push_back(*address);
    return {};
}

std::string take_peer(const std::string& value, vpn_settings_t& out) {
    out.peer = ip_network_t::parse(value);
    if (out.peer && out.peer->prefix == out.peer->bits()) return {};
    return "peer: give the address at the other end, for example 10.8.0.1";
}

std::string take_mtu(const std::string& value, vpn_settings_t& out) {
    const char* const end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, out.mtu);
    if (error == std::errc() && stop == end && out.mtu >= least_mtu && out.mtu <= most_mtu) return {};
    return "mtu: give a number from 68 to 65535";
}

std::vector<std::string> words_of(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

std::string take_route(const std::string& value, vpn_settings_t& out) {
    std::string fault =
        "route: give a network, for example 10.20.0.0/16, or default, and 'via ADDRESS' behind it "
        "if it has a gateway";
    const auto words = words_of(value);
    if (words.size() != 1 && (words.size() != 3 || words[1] != "via")) return fault;
    vpn_route_t route;
    if (words.size() == 3) {
        route.via = ip_network_t::parse(words[2]);
        if (!route.via || route.via->prefix != route.via->bits()) return fault;
    }
    const bool v6 = route.via && route.via->bits() == 128;
    const auto to = ip_network_t::parse(words[0] == "default" ? (v6 ? "::/0" : "0.0.0.0/0") : words[0]);
    if (!to || (route.via && route.via->family != to->family)) return fault;
    route.to = to->base();
    out.routes.push_back(route);
    return {};
}

std::string take_command(const std::string& value, std::vector<std::string>& out, const char* name) {
    out = words_of(value);
    return out.empty() ? std::string(name) + ": give a program and its arguments" : std::string();
}

std::string check_together(const if_options_t& options, const vpn_settings_t& settings) {
    for (const char* once : {"mode", "ifname", "peer", "mtu", "up", "down"}) {
        if (options.count(once) > 1) return std::string(once) + ": is given twice; give it once";
    }
    if (!settings.peer) return {};
    const bool fits = std::any_of(settings.addresses.begin(), settings.addresses.end(),
                                  [&](const ip_network_t& own) { return own.family == settings.peer->family; });
    return fits ? "" : "peer: give an address of the same kind too, for example address:10.8.0.2";
}

}  // namespace

std::string read_vpn_settings(const if_options_t& options, bool commands, vpn_settings_t& out) {
    static const std::map<std::string, std::string (*)(const std::string&, vpn_settings_t&)> known = {
        {"mode", take_mode}, {"ifname", take_name}, {"address", take_address},
        {"peer", take_peer}, {"mtu", take_mtu},     {"route", take_route},
    };
    for (const auto& [name, value] : options) {
        std::string fault;
        if (const auto option = known.find(name); option != known.end()) {
            fault = option->second(value, out);
        } else if (name != "up" && name != "down") {
            fault = name + ": is no option; there are mode, ifname, address, peer, mtu, route, up and down";
        } else if (!commands) {
            fault = name + ": commands run only where they are configured, never for the other side; leave it out";
        } else {
            fault = take_command(value, name == "up" ? out.up : out.down, name.c_str());
        }
        if (!fault.empty()) return fault;
    }
    return check_together(options, out);
}

std::string parse_vpn_forward(const std::string& text, vpn_forward_t& out) {
    if_options_t options;
    if (!scan_if_options(text, options)) return "close every quote, and write option:value pairs parted by ';'";
    // A name of the mode is the interface's.
    for (const char* mode : {"tun", "tap"}) {
        const auto named = options.find(mode);
        if (named == options.end()) continue;
        options.emplace("mode", mode);
        if (!named->second.empty()) options.emplace("ifname", named->second);
        options.erase(named);
    }
    if (!options.contains("mode")) return "begin with tun:NAME or tap:NAME, for example tun:vpn0;address:10.8.0.2/24";
    if (options.count("remote") > 1) return "remote: is given twice; put all of the server's options into one";
    const auto remote = options.find("remote");
    if (remote != options.end()) {
        out.remote = remote->second;
        options.erase(remote);
    }
    if (std::string fault = read_vpn_settings(options, true, out.local); !fault.empty()) return fault;

    vpn_settings_t other;
    if (!scan_if_options(out.remote, options)) return "remote: close every quote, and part its options by ';'";
    if (std::string fault = read_vpn_settings(options, false, other); !fault.empty()) return "remote: " + fault;
    if (options.contains("mode") && other.mode != out.local.mode) return "remote: mode must be " + out.local.mode;
    if (out.local.mtu != 0 && other.mtu == 0) out.remote = "mtu:" + std::to_string(out.local.mtu) + ";" + out.remote;
    if (!options.contains("mode")) out.remote = "mode:" + out.local.mode + ";" + out.remote;
    return {};
}

}  // namespace tandem::app
