#ifndef TANDEM_APP_VPN_INTERFACE_H
#define TANDEM_APP_VPN_INTERFACE_H

#include <string>
#include <vector>

#include "app/file.h"
#include "app/vpn_netlink.h"
#include "app/vpn_settings.h"

namespace tandem::app {

// Gives an interface its MTU and addresses and brings it up, then its routes. What is there already stays. Returns what
// went wrong, in one line; empty when all is done.
std::string set_up_link(netlink_t& netlink, const std::string& ifname, const vpn_settings_t& settings);
// `made`: the routes that this process has added, of which one that is there already is no fault. A default route is
// made as two halves, so that the one that leads around the tunnel stays.
std::string set_up_routes(netlink_t& netlink, const std::string& ifname, const vpn_settings_t& settings,
                          std::vector<ip_network_t>& made);

// The client's end of a VPN: a tun/tap device with its settings, for as long as the object lives. The device keeps its
// place over reconnections. At the end `down` runs, and what was added goes, also from a device that was there before.
class vpn_interface_t {
  public:
    // Opens the device and sets up all but the routes. Throws failure_t.
    explicit vpn_interface_t(const vpn_settings_t& settings);
    vpn_interface_t(const vpn_interface_t&) = delete;
    vpn_interface_t& operator=(const vpn_interface_t&) = delete;
    ~vpn_interface_t();

    int fd() const { return device_.fd(); }
    const std::string& name() const { return name_; }

    // The link carries now. The first time adds the routes and runs `up`, for whose end it waits; later ones restore
    // what somebody has taken away meanwhile. Returns what went wrong, in one line.
    std::string connected();

  private:
    void open_device();
    std::string run(const std::vector<std::string>& command) const;

    vpn_settings_t settings_;
    file_t device_;
    std::string name_;
    netlink_t netlink_;
    std::vector<ip_network_t> routes_;
    bool was_connected_ = false;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_VPN_INTERFACE_H
