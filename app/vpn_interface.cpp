#include "app/vpn_interface.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "app/failure.h"

namespace tandem::app {
namespace {

constexpr const char* tun_device = "/dev/net/tun";

const char* cure(int error) {
    switch (error) {
        case EPERM:
        case EACCES:
            return "; this needs the capability CAP_NET_ADMIN: run as root";
        case EBUSY:
            return "; another program has that interface: choose another name, or end it";
        case EINVAL:
            return "; that name belongs to an interface of another kind: choose another one";
        default:
            return "";
    }
}

std::string told(const std::string& what, int error) {
    return what + ": " + strerror(error) + cure(error);
}

std::vector<ip_network_t> halves(const ip_network_t& network) {
    if (network.prefix != 0) return {network};
    ip_network_t lower = network;
    lower.prefix = 1;
    ip_network_t upper = lower;
    upper.address[0] = 0x80;
    return {lower, upper};
}

}  // namespace

std::string set_up_link(netlink_t& netlink, const std::string& ifname, const vpn_settings_t& settings) {
    const unsigned index = if_nametoindex(ifname.c_str());
    if (index == 0) return "interface " + ifname + " is gone";
    for (const ip_network_t& address : settings.addresses) {
        const bool has_peer = settings.peer && settings.peer->family == address.family;
        if (const int error = netlink.add_address(index, address, has_peer ? settings.peer : std::nullopt))
            return told("address " + address.text() + " on " + ifname, error);
    }
    if (const int error = netlink.bring_up(index, settings.mtu)) return told("interface " + ifname, error);
    return {};
}

std::string set_up_routes(netlink_t& netlink, const std::string& ifname, const vpn_settings_t& settings,
                          std::vector<ip_network_t>& made) {
    const unsigned index = if_nametoindex(ifname.c_str());
    if (index == 0) return "interface " + ifname + " is gone";
    for (const vpn_route_t& route : settings.routes) {
        for (const ip_network_t& to : halves(route.to)) {
            const bool known = std::any_of(made.begin(), made.end(), [&](const ip_network_t& other) {
                return other.prefix == to.prefix && other.contains(to);
            });
            const int error = netlink.add_route(index, to, route.via);
            if (error != 0 && !(error == EEXIST && known)) return told("route " + to.text() + " to " + ifname, error);
            if (!known) made.push_back(to);
        }
    }
    return {};
}

vpn_interface_t::vpn_interface_t(const vpn_settings_t& settings, tell_t tell)
    : settings_(settings), tell_(std::move(tell)) {
    open_device();
    if (const std::string fault = set_up_link(netlink_, name_, settings_); !fault.empty())
        throw failure_t("--vpn: " + fault);
}

void vpn_interface_t::open_device() {
    device_ = file_t(open(tun_device, O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!device_) {
        const int error = errno;
        throw failure_t(told(std::string("--vpn: cannot open ") + tun_device, error) +
                        (error == ENOENT || error == ENODEV ? "; load the kernel's tun module (modprobe tun)" : ""));
    }
    ifreq request{};
    request.ifr_flags = static_cast<short>((settings_.mode == "tap" ? IFF_TAP : IFF_TUN) | IFF_NO_PI);
    settings_.ifname.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    if (ioctl(device_.fd(), TUNSETIFF, &request) < 0)
        throw failure_t(told("--vpn: cannot make the interface " + settings_.ifname, errno));
    name_.assign(request.ifr_name, strnlen(request.ifr_name, sizeof(request.ifr_name)));
}

vpn_interface_t::~vpn_interface_t() {
    up_.reset();
    if (was_connected_ && !settings_.down.empty()) {
        const std::string fault = hook_command_t(words_of(settings_.down)).wait();
        if (!fault.empty()) tell_("down:" + fault);
    }
    const unsigned index = if_nametoindex(name_.c_str());
    if (index == 0) return;
    for (const ip_network_t& route : routes_) {
        netlink_.delete_route(index, route);
    }
    for (const ip_network_t& address : settings_.addresses) {
        netlink_.delete_address(index, address);
    }
}

void vpn_interface_t::connected(st_tloop_t* loop) {
    const bool first = !std::exchange(was_connected_, true);
    std::string fault = first ? "" : set_up_link(netlink_, name_, settings_);
    if (fault.empty()) fault = set_up_routes(netlink_, name_, settings_, routes_);
    if (!fault.empty()) return tell_(fault);
    if (!first || settings_.up.empty()) return;
    up_ = std::make_unique<hook_command_t>(words_of(settings_.up));
    up_->watch(loop, [this](const std::string& what) { tell_("up:" + what); });
}

std::vector<std::string> vpn_interface_t::words_of(std::vector<std::string> command) const {
    const std::string mark = "%ifname%";
    for (std::string& word : command) {
        for (size_t at = word.find(mark); at != std::string::npos; at = word.find(mark, at + name_.size()))
            word.replace(at, mark.size(), name_);
    }
    return command;
}

}  // namespace tandem::app
