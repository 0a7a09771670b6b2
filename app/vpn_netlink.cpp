#include "app/vpn_netlink.h"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace tandem::app {

// One message: a header, the fields of its type, then attributes. Everything that is put into it fits.
class netlink_t::request_t {
  public:
    template <typename fields_t>
    request_t(uint16_t type, uint16_t flags, const fields_t& fields) {
        header().nlmsg_len = NLMSG_LENGTH(sizeof(fields));
        header().nlmsg_type = type;
        header().nlmsg_flags = static_cast<uint16_t>(flags | NLM_F_REQUEST | NLM_F_ACK);
        std::memcpy(NLMSG_DATA(&header()), &fields, sizeof(fields));
    }

    nlmsghdr& header() { return *reinterpret_cast<nlmsghdr*>(bytes_); }

    void attribute(uint16_t type, const void* data, size_t size) {
        auto* const at = reinterpret_cast<rtattr*>(bytes_ + NLMSG_ALIGN(header().nlmsg_len));
        at->rta_type = type;
        at->rta_len = static_cast<uint16_t>(RTA_LENGTH(size));
        std::memcpy(RTA_DATA(at), data, size);
        header().nlmsg_len = NLMSG_ALIGN(header().nlmsg_len) + RTA_ALIGN(at->rta_len);
    }
    void attribute(uint16_t type, const ip_network_t& address) {
        attribute(type, address.address.data(), address.bytes());
    }

  private:
    alignas(nlmsghdr) char bytes_[256] = {};
};

netlink_t::netlink_t() : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}

// Only the kernel's answer to this very request counts.
int netlink_t::transact(request_t& request) {
    if (!socket_) return EBADF;
    request.header().nlmsg_seq = ++sequence_;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(socket_.fd(), &request.header(), request.header().nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
               sizeof(kernel)) < 0) {
        return errno;
    }
    for (;;) {
        alignas(nlmsghdr) char answer[4096];
        sockaddr_nl from{};
        socklen_t length = sizeof(from);
        const ssize_t size =
            recvfrom(socket_.fd(), answer, sizeof(answer), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return errno;
        const auto* header = reinterpret_cast<const nlmsghdr*>(answer);
        if (from.nl_pid != 0 || static_cast<size_t>(size) < NLMSG_LENGTH(sizeof(nlmsgerr))) continue;
        if (header->nlmsg_seq != sequence_ || header->nlmsg_type != NLMSG_ERROR) continue;
        return -reinterpret_cast<const nlmsgerr*>(NLMSG_DATA(header))->error;
    }
}

int netlink_t::bring_up(unsigned interface, unsigned mtu) {
    ifinfomsg fields{};
    fields.ifi_index = static_cast<int>(interface);
    fields.ifi_flags = IFF_UP;
    fields.ifi_change = IFF_UP;
    request_t request(RTM_NEWLINK, 0, fields);
    const auto value = static_cast<uint32_t>(mtu);
    if (mtu != 0) request.attribute(IFLA_MTU, &value, sizeof(value));
    return transact(request);
}

int netlink_t::add_address(unsigned interface, const ip_network_t& address, const std::optional<ip_network_t>& peer) {
    return change_address(RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE, interface, address, peer);
}

int netlink_t::delete_address(unsigned interface, const ip_network_t& address) {
    return change_address(RTM_DELADDR, 0, interface, address, std::nullopt);
}

int netlink_t::change_address(uint16_t type, uint16_t flags, unsigned interface, const ip_network_t& address,
                              const std::optional<ip_network_t>& peer) {
    ifaddrmsg fields{};
    fields.ifa_family = static_cast<uint8_t>(address.family);
    fields.ifa_prefixlen = static_cast<uint8_t>(peer ? peer->prefix : address.prefix);
    fields.ifa_index = interface;
    // Nobody else can have it at the end of a tunnel, and until a check for that were done it could not be used.
    if (address.family == AF_INET6) fields.ifa_flags = IFA_F_NODAD;
    request_t request(type, flags, fields);
    request.attribute(IFA_LOCAL, address);
    request.attribute(IFA_ADDRESS, peer ? *peer : address);
    return transact(request);
}

int netlink_t::add_route(unsigned interface, const ip_network_t& to, const std::optional<ip_network_t>& via) {
    return change_route(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, interface, to, via);
}

int netlink_t::delete_route(unsigned interface, const ip_network_t& to) {
    return change_route(RTM_DELROUTE, 0, interface, to, std::nullopt);
}

int netlink_t::change_route(uint16_t type, uint16_t flags, unsigned interface, const ip_network_t& to,
                            const std::optional<ip_network_t>& via) {
    rtmsg fields{};
    fields.rtm_family = static_cast<uint8_t>(to.family);
    fields.rtm_dst_len = static_cast<uint8_t>(to.prefix);
    fields.rtm_table = RT_TABLE_MAIN;
    fields.rtm_protocol = RTPROT_STATIC;
    fields.rtm_type = RTN_UNICAST;
    // Of a route that is deleted only what tells it from others.
    fields.rtm_scope = type == RTM_DELROUTE ? RT_SCOPE_NOWHERE : via ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
    request_t request(type, flags, fields);
    request.attribute(RTA_DST, to);
    request.attribute(RTA_OIF, &interface, sizeof(interface));
    if (via) request.attribute(RTA_GATEWAY, *via);
    return transact(request);
}

}  // namespace tandem::app
