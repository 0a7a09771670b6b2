#ifndef TANDEM_GATEWAY_VPN_RULES_H
#define TANDEM_GATEWAY_VPN_RULES_H

#include <string>
#include <vector>

#include "gateway/vpn_host.h"

namespace tandem {

// Rules of the form `CLIENT;option:values;...`: what the client of that id may ask for, or every client for `*`.
// Without a rule nothing is allowed; of several rules each adds to what the others allow. Values are parted by commas:
//   mode     tun, tap; without it only tun
//   ifname   names; one that ends with `*` stands for all that begin so
//   address, peer, route   networks: what lies inside is allowed
//   mtu      the largest value
class vpn_rules_t : public vpn_policy_t {
  public:
    // Empty, or what is wrong with the rule and how to mend it; nothing is added then.
    std::string add(const std::string& text);
    bool empty() const { return rules_.empty(); }

    bool allows_vpn_option(const std::string& client, const std::string& option,
                           const std::string& value) const override;

  private:
    struct rule_t {
        std::string client;
        if_options_t allowed;
    };

    std::vector<rule_t> rules_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_VPN_RULES_H
