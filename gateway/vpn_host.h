#ifndef TANDEM_GATEWAY_VPN_HOST_H
#define TANDEM_GATEWAY_VPN_HOST_H

#include <string>

#include "forward/if_options.h"

namespace tandem {

// What clients may ask of the interfaces that a gateway makes for them.
class vpn_policy_t {
  public:
    virtual ~vpn_policy_t() = default;

    // Whether `client` (the id that it was let in with) may have `option` with this value. Every interface asks for
    // "mode" ("tun" or "tap"); "ifname", "address", "peer", "mtu" and "route" only when the client names them. Any
    // thread.
    virtual bool allows_vpn_option(const std::string& client, const std::string& option,
                                   const std::string& value) const = 0;
};

// Makes what clients ask for out of a bare tun/tap device. Serves several connections at once, on their workers.
class vpn_host_t {
  public:
    virtual ~vpn_host_t() = default;

    // Whether `client` may have this interface; asked before it is made. An empty `ifname` leaves the name to the
    // system. False: `reason` is one line for the log.
    virtual bool admit(const std::string& client, const std::string& mode, const std::string& ifname,
                       const if_options_t& options, std::string& reason) = 0;
    // Gives the new interface its addresses and routes. The interface goes when this fails, as it does later with its
    // connection, and all of it with it.
    virtual bool set_up(const std::string& ifname, const if_options_t& options, std::string& reason) = 0;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_VPN_HOST_H
