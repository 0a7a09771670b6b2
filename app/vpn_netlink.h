#ifndef TANDEM_APP_VPN_NETLINK_H
#define TANDEM_APP_VPN_NETLINK_H

#include <optional>
#include <vector>

#include "app/file.h"
#include "gateway/ip_network.h"

namespace tandem::app {

// Changes interfaces, addresses and routes by rtnetlink. Each operation waits for the kernel's answer and returns 0 or
// the error's number. Opening one never fails; what is done with it then does.
class netlink_t {
  public:
    netlink_t();

    // `mtu` 0 leaves it as it is.
    int bring_up(unsigned interface, unsigned mtu);
    // What is there already stays, and is no error.
    int add_address(unsigned interface, const ip_network_t& address, const std::optional<ip_network_t>& peer);
    int delete_address(unsigned interface, const ip_network_t& address);
    // EEXIST when there is one already, whatever interface it leads to.
    int add_route(unsigned interface, const ip_network_t& to, const std::optional<ip_network_t>& via);
    int delete_route(unsigned interface, const ip_network_t& to);

  private:
    class request_t;

    int change_address(uint16_t type, uint16_t flags, unsigned interface, const ip_network_t& address,
                       const std::optional<ip_network_t>& peer);
    int change_route(uint16_t type, uint16_t flags, unsigned interface, const ip_network_t& to,
                     const std::optional<ip_network_t>& via);
    int transact(request_t& request);

    file_t socket_;
    uint32_t sequence_ = 0;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_VPN_NETLINK_H
