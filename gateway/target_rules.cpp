#include "gateway/target_rules.h"

#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace tandem {
namespace {

// Addresses that are denied unless a rule names them.
const std::vector<ip_network_t>& guarded_networks() {
    static const std::vector<ip_network_t> networks = [] {
        std::vector<ip_network_t> made;
        for (const char* text : {"0.0.0.0/8", "127.0.0.0/8", "169.254.0.0/16", "224.0.0.0/4", "255.255.255.255",
                                 "::/127", "fe80::/10", "fec0::/10", "ff00::/8",
                                 // IPv4 behind 6to4, Teredo, and translators of a network's own.
                                 "2002::/16", "2001::/32", "64:ff9b:1::/48", "::ffff:0:0:0/96"}) {
            made.push_back(*ip_network_t::parse(text));
        }
        return made;
    }();
    return networks;
}

bool lies_among_guarded(const ip_network_t& network) {
    const auto& guarded = guarded_networks();
    return std::any_of(guarded.begin(), guarded.end(), [&](const ip_network_t& one) { return one.contains(network); });
}

// IPv4 in IPv6 clothes becomes IPv4.
ip_network_t undressed(const ip_network_t& network) {
    constexpr unsigned inner_prefix = 96;
    if (network.family != AF_INET6 || network.prefix < inner_prefix) return network;
    static const ip_network_t loopback_and_nothing = *ip_network_t::parse("::/127");
    if (loopback_and_nothing.contains(network)) return network;
    for (const char* text : {"::ffff:0:0/96", "64:ff9b::/96", "::/96"}) {
        if (!ip_network_t::parse(text)->contains(network)) continue;
        ip_network_t inner;
        inner.family = AF_INET;
        inner.prefix = network.prefix - inner_prefix;
        std::copy_n(network.address.begin() + 12, 4, inner.address.begin());
        return inner;
    }
    return network;
}

std::string lower(std::string_view text) {
    std::string out(text);
    // A name may end with the root's dot.
    if (out.size() > 1 && out.back() == '.') out.pop_back();
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
    std::vector<std::string_view> parts;
    for (size_t at = 0; (at = text.find_first_not_of(separators, at)) != std::string_view::npos;) {
        const size_t end = std::min(text.find_first_of(separators, at), text.size());
        parts.push_back(text.substr(at, end - at));
        at = end;
    }
    return parts;
}

bool is_plain(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '.' ||
               c == '_' || c == '@';
    });
}

bool read_port(std::string_view text, uint16_t& port) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size();
}

std::string quoted(std::string_view text) {
    std::string out = "'" + std::string(text.substr(0, 80)) + "'";
    for (char& c : out) {
        if (c < ' ' || c > '~') c = '?';
    }
    return out;
}

}  // namespace

std::optional<ip_network_t> plain_address(const sockaddr_storage& address) {
    ip_network_t made;
    made.family = address.ss_family;
    if (address.ss_family == AF_INET) {
        const auto& ip4 = reinterpret_cast<const sockaddr_in&>(address);
        std::memcpy(made.address.data(), &ip4.sin_addr, sizeof(ip4.sin_addr));
    } else if (address.ss_family == AF_INET6) {
        const auto& ip6 = reinterpret_cast<const sockaddr_in6&>(address);
        std::memcpy(made.address.data(), &ip6.sin6_addr, sizeof(ip6.sin6_addr));
    } else {
        return std::nullopt;
    }
    made.prefix = made.bits();
    return undressed(made);
}

std::string target_rules_t::add_all(std::string_view text) {
    unsigned number = 0;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        ++number;
        const std::string fault = add(text.substr(0, end));
        if (!fault.empty()) return "line " + std::to_string(number) + ": " + fault;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return {};
}

std::string target_rules_t::add(std::string_view line) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos || line[first] == '#') return {};
    rule_t rule;
    std::string fault = read(line, rule);
    if (fault.empty()) rules_.push_back(std::move(rule));
    return fault;
}

std::string target_rules_t::read(std::string_view line, rule_t& rule) {
    const auto words = split(line, " \t\r");
    if (words.size() != 5) return "write allow|deny CLIENT tcp|udp|* TARGET PORTS, five words, not " + quoted(line);
    if (words[0] != "allow" && words[0] != "deny") return quoted(words[0]) + " is neither allow nor deny";
    rule.allow = words[0] == "allow";
    if (words[1] != "*") {
        if (!is_plain(words[1])) return quoted(words[1]) + " is no client's id; give one, or * for every client";
        rule.client = words[1];
    }
    if (words[2] != "*") {
        if (words[2] != "tcp" && words[2] != "udp") return quoted(words[2]) + " is none of tcp, udp and *";
        rule.kind = words[2];
    }
    if (words[3] != "*") {
        const bool below = words[3].starts_with("*.");
        if (const auto network = ip_network_t::parse(std::string(words[3]))) {
            rule.network = undressed(*network);
        } else if (words[3].find_first_of("/:[]") == std::string_view::npos &&
                   is_plain(words[3].substr(below ? 2 : 0))) {
            rule.name = lower(words[3].substr(below ? 1 : 0));
        } else {
            return quoted(words[3]) + " is no target; give an address, NETWORK/PREFIX, a name, *.DOMAIN, or *";
        }
    }
    if (words[4] == "*") {
        rule.ports.push_back({});
        return {};
    }
    for (const std::string_view part : split(words[4], ",")) {
        const size_t dash = part.find('-');
        ports_t ports;
        if (!read_port(part.substr(0, dash), ports.first)) return quoted(part) + " is no port; write 80, 80-90 or *";
        ports.last = ports.first;
        if (dash != std::string_view::npos &&
            (!read_port(part.substr(dash + 1), ports.last) || ports.last < ports.first)) {
            return quoted(part) + " is no range of ports; write the lower one first, for example 80-90";
        }
        rule.ports.push_back(ports);
    }
    return rule.ports.empty() ? quoted(words[4]) + " names no port; write 80, 80-90 or *" : std::string();
}

bool target_rules_t::rule_t::concerns(const target_t& target) const {
    return (client.empty() || client == target.client) && (kind.empty() || kind == target.kind) &&
           std::any_of(ports.begin(), ports.end(),
                       [&](const ports_t& range) { return range.first <= target.port && target.port <= range.last; });
}

bool target_rules_t::rule_t::names(std::string_view host) const {
    if (name.empty()) return false;
    const std::string plain = lower(host);
    return name.front() == '.' ? plain.size() > name.size() && plain.ends_with(name) : plain == name;
}

bool target_rules_t::may_resolve(const target_t& target) const {
    if (rules_.empty()) return without_rules_ == without_rules_t::allow;
    for (const rule_t& rule : rules_) {
        if (!rule.concerns(target)) continue;
        if (rule.is_for_anything() || rule.names(target.host)) return rule.allow;
        // Where the name leads is not known yet.
        if (rule.network && rule.allow) return true;
    }
    return false;
}

bool target_rules_t::allows(const target_t& target, const ip_network_t& address) const {
    const bool guarded = lies_among_guarded(address);
    if (rules_.empty()) return without_rules_ == without_rules_t::allow && !guarded;
    bool allowed_by_name = false;
    for (const rule_t& rule : rules_) {
        if (!rule.concerns(target)) continue;
        if (rule.network) {
            if (!rule.network->contains(address)) continue;
            // A network that is wider than what is guarded does not name it.
            if (rule.allow && guarded && !lies_among_guarded(*rule.network)) continue;
            return rule.allow;
        }
        if (allowed_by_name || (!rule.is_for_anything() && !rule.names(target.host))) continue;
        if (!rule.allow) return false;
        if (rule.is_for_anything()) {
            if (guarded) continue;
            return true;
        }
        allowed_by_name = true;
    }
    return allowed_by_name && !guarded;
}

}  // namespace tandem
