#ifndef TANDEM_APP_VPN_SERVER_H
#define TANDEM_APP_VPN_SERVER_H

#include <memory>
#include <string>

#include "gateway/vpn_host.h"

namespace tandem::app {

// Makes the interfaces that the server's clients ask for, as far as the policy goes. They vanish with their connection,
// and their addresses and routes with them: an interface that is there already is nobody's.
class vpn_server_t : public vpn_host_t {
  public:
    explicit vpn_server_t(std::shared_ptr<const vpn_policy_t> policy) : policy_(std::move(policy)) {}

    bool admit(const std::string& client, const std::string& mode, const std::string& ifname,
               const if_options_t& options, std::string& reason) override;
    bool set_up(const std::string& ifname, const if_options_t& options, std::string& reason) override;

  private:
    std::shared_ptr<const vpn_policy_t> policy_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_VPN_SERVER_H
