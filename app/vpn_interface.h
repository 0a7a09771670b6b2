#ifndef TANDEM_APP_VPN_INTERFACE_H
#define TANDEM_APP_VPN_INTERFACE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/file.h"
#include "app/hook_command.h"
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
// place over reconnections. At the end `down` runs to its end, and what was added goes, also from a device that was
// there before. One thread, the loop's.
class vpn_interface_t {
  public:
    // Hears of trouble, in one line.
    using tell_t = std::function<void(const std::string& fault)>;

    // Opens the device and sets up all but the routes. Throws failure_t.
    vpn_interface_t(const vpn_settings_t& settings, tell_t tell);
    vpn_interface_t(const vpn_interface_t&) = delete;
    vpn_interface_t& operator=(const vpn_interface_t&) = delete;
    ~vpn_interface_t();

    int fd() const { return device_.fd(); }
    const std::string& name() const { return name_; }

    // The link carries now. The first time adds the routes and starts `up`; later ones restore what somebody has taken
    // away meanwhile. `loop` outlives this object.
    void connected(st_tloop_t* loop);

  private:
    void open_device();
    std::vector<std::string> words_of(std::vector<std::string> command) const;

    vpn_settings_t settings_;
    tell_t tell_;
    file_t device_;
    std::string name_;
    netlink_t netlink_;
    std::vector<ip_network_t> routes_;
    bool was_connected_ = false;
    std::unique_ptr<hook_command_t> up_;  // null: not started
};

}  // namespace tandem::app

#endif  // TANDEM_APP_VPN_INTERFACE_H
