#ifndef TANDEM_GATEWAY_TARGET_RULES_H
#define TANDEM_GATEWAY_TARGET_RULES_H

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/ip_network.h"

namespace tandem {

// What is asked for: `kind` is "tcp" or "udp", `host` as the peer has written it.
struct target_t {
    std::string client;
    std::string kind;
    std::string host;
    uint16_t port = 0;
};

// Who may reach what. One rule a line: allow|deny CLIENT KIND TARGET PORTS
//   CLIENT  an id, or *
//   KIND    tcp, udp or *
//   TARGET  a numeric address, NETWORK/PREFIX, a host name, *.DOMAIN (what lies below it), or *
//   PORTS   80, 80-90, several parted by commas, or *
// Empty lines and those that begin with '#' say nothing. The first rule that matches decides; where there are rules,
// what none matches is denied.
//
// Loopback, link-local, multicast, broadcast and unspecified addresses, and IPv6 addresses that tunnel or translate to
// IPv4 (6to4, Teredo, a network's own translation prefix), are denied unless a rule allows an address or
// network that lies among them. A rule that allows a name holds for an address behind it only when no later rule for
// addresses denies that address: whoever answers for the name does not decide where it leads. An IPv6 form of an IPv4
// address is that IPv4 address.
class target_rules_t {
  public:
    // What happens when there is no rule at all.
    enum class without_rules_t { allow, deny };

    explicit target_rules_t(without_rules_t without_rules) : without_rules_(without_rules) {}

    // Empty, or what is wrong with the line and how to mend it; nothing is added then.
    std::string add(std::string_view line);
    // All lines of `text`, up to the first fault, which is told with the line's number.
    std::string add_all(std::string_view text);
    bool empty() const { return rules_.empty(); }

    // Before the host is looked up: whether any address could be allowed, so that nobody makes this side look up what
    // it does not allow anyway.
    bool may_resolve(const target_t& target) const;
    // Whether the address that the host stands for may be reached.
    bool allows(const target_t& target, const ip_network_t& address) const;

  private:
    struct ports_t {
        uint16_t first = 0;
        uint16_t last = UINT16_MAX;
    };
    struct rule_t {
        bool allow = false;
        std::string client;                   // empty: any
        std::string kind;                     // empty: any
        std::optional<ip_network_t> network;  // else
        std::string name;                     // empty: any target; a leading dot: what lies below
        std::vector<ports_t> ports;

        bool concerns(const target_t& target) const;
        bool names(std::string_view host) const;
        bool is_for_anything() const { return !network && name.empty(); }
    };

    static std::string read(std::string_view line, rule_t& rule);

    without_rules_t without_rules_;
    std::vector<rule_t> rules_;
};

// The address of an IPv4 or IPv6 socket address as rules see it: an IPv6 form of an IPv4 address (mapped, compatible,
// or through the well-known translation prefix) becomes that. Nothing for another family.
std::optional<ip_network_t> plain_address(const sockaddr_storage& address);

}  // namespace tandem

#endif  // TANDEM_GATEWAY_TARGET_RULES_H
