#include "gateway/vpn_rules.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "gateway/ip_network.h"

namespace tandem {
namespace {

constexpr unsigned least_mtu = 68;
constexpr unsigned most_mtu = 65535;

std::optional<unsigned> parse_mtu(const std::string& text) {
    unsigned mtu = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, mtu);
    if (error != std::errc() || stop != end || mtu < least_mtu || mtu > most_mtu) return std::nullopt;
    return mtu;
}

bool is_network_option(const std::string& option) {
    return option == "address" || option == "peer" || option == "route";
}

// What is wrong with one allowed value of an option; empty when it is in order.
std::string fault_of(const std::string& option, const std::string& value) {
    if (is_network_option(option)) {
        return ip_network_t::parse(value) ? "" : option + " takes networks, for example 10.8.0.0/24";
    }
    if (option == "mtu") return parse_mtu(value) ? "" : "mtu takes the largest value to allow, from 68 to 65535";
    if (option == "mode") return value == "tun" || value == "tap" ? "" : "mode takes tun, tap or both";
    if (option == "ifname") return value.empty() ? "ifname takes names, for example vpn*" : "";
    return "the options are mode, ifname, address, peer, route and mtu";
}

// Whether `allowed`, one value of a rule, covers what is asked for.
bool covers(const std::string& option, const std::string& allowed, const std::string& asked) {
    if (is_network_option(option)) {
        // An address brings a route to its whole network. A route may have more behind its network.
        const auto network = ip_network_t::parse(asked.substr(0, asked.find(' ')));
        return network && ip_network_t::parse(allowed)->contains(*network);
    }
    if (option == "mtu") {
        const auto mtu = parse_mtu(asked);
        return mtu && *mtu <= *parse_mtu(allowed);
    }
    if (option == "ifname" && allowed.ends_with('*')) return asked.starts_with(allowed.substr(0, allowed.size() - 1));
    return asked == allowed;
}

std::vector<std::string> parts_of(const std::string& text) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == ',') {
            parts.emplace_back();
        } else if (c != ' ') {
            parts.back() += c;
        }
    }
    return parts;
}

}  // namespace

std::string vpn_rules_t::add(const std::string& text) {
    rule_t rule;
    const size_t end = text.find(';');
    rule.client = text.substr(0, end);
    if (rule.client.empty() || rule.client.find(':') != std::string::npos) {
        return "begin with a client's id or *, for example *;address:10.8.0.0/24";
    }
    if_options_t given;
    if (end != std::string::npos && !scan_if_options(text.substr(end + 1), given)) {
        return "write option:values pairs parted by ';'";
    }
    for (const auto& [option, values] : given) {
        for (const std::string& value : parts_of(values)) {
            if (std::string fault = fault_of(option, value); !fault.empty()) return fault;
            rule.allowed.emplace(option, value);
        }
    }
    if (!rule.allowed.contains("mode")) rule.allowed.emplace("mode", "tun");
    rules_.push_back(std::move(rule));
    return {};
}

bool vpn_rules_t::allows_vpn_option(const std::string& client, const std::string& option,
                                    const std::string& value) const {
    return std::any_of(rules_.begin(), rules_.end(), [&](const rule_t& rule) {
        if (rule.client != "*" && rule.client != client) return false;
        const auto [first, last] = rule.allowed.equal_range(option);
        return std::any_of(first, last, [&](const auto& entry) { return covers(option, entry.second, value); });
    });
}

}  // namespace tandem
