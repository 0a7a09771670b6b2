#include "platform/tndm/endpoint/network_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

namespace tndm {

namespace {

constexpr size_t message_room = 32 * 1024;  // the kernel makes none larger
constexpr int messages_at_once = 64;
constexpr auto before_repeat = std::chrono::milliseconds(20);
#ifndef IFF_LOWER_UP
constexpr unsigned IFF_LOWER_UP = 1U << 16;
#endif

// The fixed part of a message; nothing when it is too short for one.
template <typename T>
const T* body_of(const nlmsghdr& message) {
    return message.nlmsg_len < NLMSG_LENGTH(sizeof(T)) ? nullptr : static_cast<const T*>(NLMSG_DATA(&message));
}

template <typename T>
std::span<const uint8_t> attribute(const nlmsghdr& message, unsigned short type) {
    const size_t head = NLMSG_LENGTH(NLMSG_ALIGN(sizeof(T)));
    size_t left = message.nlmsg_len < head ? 0 : message.nlmsg_len - head;
    const auto* at = reinterpret_cast<const uint8_t*>(&message) + head;
    while (left >= sizeof(rtattr)) {
        rtattr found;
        std::memcpy(&found, at, sizeof found);
        if (found.rta_len < sizeof(rtattr) || found.rta_len > left) {
            break;
        }
        if ((found.rta_type & NLA_TYPE_MASK) == type) {
            return {at + RTA_LENGTH(0), found.rta_len - RTA_LENGTH(0)};
        }
        const size_t step = std::min<size_t>(RTA_ALIGN(found.rta_len), left);
        at += step;
        left -= step;
    }
    return {};
}

template <typename T, typename V>
std::optional<V> value_of(const nlmsghdr& message, unsigned short type) {
    const auto bytes = attribute<T>(message, type);
    V value{};
    if (bytes.size() != sizeof value) {
        return std::nullopt;
    }
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

std::string name_in(const nlmsghdr& message) {
    const auto bytes = attribute<ifinfomsg>(message, IFLA_IFNAME);
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    return bytes.empty() ? std::string() : std::string(text, strnlen(text, bytes.size()));
}

}  // namespace

std::unique_ptr<network_watch> network_watch::open(st_tloop_t* loop, std::function<void()> on_readable) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        return nullptr;
    }
    std::unique_ptr<network_watch> made(new network_watch(fd));
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    own.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 || !made->ask(dump::links)) {
        return nullptr;
    }
    made->watcher_ = std::make_unique<io_watcher>(loop, fd, std::move(on_readable));
    return made;
}

network_watch::~network_watch() {
    watcher_.reset();
    close(fd_);
}

bool network_watch::ask(dump what) {
    struct {
        nlmsghdr head;
        rtgenmsg body;
    } request{};
    request.head.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
    request.head.nlmsg_type = what == dump::links ? RTM_GETLINK : RTM_GETADDR;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.head.nlmsg_seq = ++sequence_;
    request.body.rtgen_family = AF_UNSPEC;
    dump_ = what;
    return send(fd_, &request, request.head.nlmsg_len, 0) == static_cast<ssize_t>(request.head.nlmsg_len);
}

bool network_watch::on_time(core::instant now) {
    if (now >= repeat_at_) {
        repeat_at_ = core::never;
        again_ = true;
        failed_ = failed_ || !ask(dump::links);
    }
    return !failed_;
}

bool network_watch::read(link_table& into, core::instant now) {
    alignas(nlmsghdr) std::array<uint8_t, message_room> buffer;
    for (int i = 0; i < messages_at_once; ++i) {
        if (dump_ == dump::links && std::exchange(again_, false)) {
            torn_ = false;
            into.begin_dump();
        }
        sockaddr_nl from{};
        iovec part{buffer.data(), buffer.size()};
        msghdr head{};
        head.msg_name = &from;
        head.msg_namelen = sizeof from;
        head.msg_iov = &part;
        head.msg_iovlen = 1;
        const ssize_t got = recvmsg(fd_, &head, 0);
        if (got < 0 && errno == ENOBUFS) {
            torn_ = true;
            if (dump_ == dump::none) {
                repeat_at_ = std::min(repeat_at_, now + before_repeat);
            }
            continue;
        }
        if (got < 0) {
            return !failed_ && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
        }
        if (from.nl_pid != 0) {
            continue;  // only the kernel is believed
        }
        size_t left = static_cast<size_t>(got);
        for (size_t at = 0; left >= sizeof(nlmsghdr);) {
            const auto& message = *reinterpret_cast<const nlmsghdr*>(buffer.data() + at);
            if (message.nlmsg_len < sizeof(nlmsghdr) || message.nlmsg_len > left) {
                break;
            }
            on_message(message, into, now);
            const size_t step = std::min<size_t>(NLMSG_ALIGN(message.nlmsg_len), left);
            at += step;
            left -= step;
        }
    }
    return !failed_;
}

void network_watch::on_message(const nlmsghdr& message, link_table& into, core::instant now) {
    const bool of_dump = dump_ != dump::none && message.nlmsg_seq == sequence_;
    torn_ = torn_ || (of_dump && (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0);
    switch (message.nlmsg_type) {
        case NLMSG_ERROR:
            failed_ = failed_ || of_dump;
            break;
        case NLMSG_DONE:
            if (of_dump) {
                on_dump_end(!torn_, into, now);
            }
            break;
        case RTM_NEWLINK:
            if (const auto* link = body_of<ifinfomsg>(message); link != nullptr && !name_in(message).empty()) {
                const bool up = (link->ifi_flags & IFF_UP) != 0 && (link->ifi_flags & IFF_LOWER_UP) != 0;
                into.link(link->ifi_index, name_in(message), up);
            }
            break;
        case RTM_DELLINK:
            // A port that leaves its bridge says so in the bridge's family; only the other kind means the interface.
            if (const auto* link = body_of<ifinfomsg>(message); link != nullptr && link->ifi_family == AF_UNSPEC) {
                into.link_deleted(link->ifi_index);
            }
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            on_address(message, into);
            break;
        case RTM_NEWROUTE:
            if (const auto* route = body_of<rtmsg>(message);
                route != nullptr && route->rtm_type == RTN_UNICAST && (route->rtm_flags & RTM_F_CLONED) == 0) {
                if (const auto index = value_of<rtmsg, int>(message, RTA_OIF)) {
                    into.route(*index);
                }
            }
            break;
        default:
            break;
    }
}

// An IPv6 address may be told before it may be used (while another machine on the link could object), or although it
// may not be used any more.
void network_watch::on_address(const nlmsghdr& message, link_table& into) {
    const auto* body = body_of<ifaddrmsg>(message);
    endpoint own;
    if (body != nullptr && body->ifa_family == AF_INET) {
        // On a point-to-point link IFA_ADDRESS is the other end's.
        if (const auto local = value_of<ifaddrmsg, in_addr>(message, IFA_LOCAL)) {
            own = endpoint::from(*local, 0);
        }
    } else if (body != nullptr && body->ifa_family == AF_INET6) {
        const auto local = value_of<ifaddrmsg, in6_addr>(message, IFA_LOCAL);  // only on a point-to-point link
        if (const auto address = local ? local : value_of<ifaddrmsg, in6_addr>(message, IFA_ADDRESS)) {
            own = endpoint::from(*address, 0);
        }
    }
    const auto host = link_table::host_of(own);
    if (!host) {
        return;
    }
    const bool objected = (body->ifa_flags & IFA_F_DADFAILED) != 0;
    const bool tentative = (body->ifa_flags & (IFA_F_TENTATIVE | IFA_F_OPTIMISTIC)) == IFA_F_TENTATIVE;
    const int index = static_cast<int>(body->ifa_index);
    if (message.nlmsg_type == RTM_NEWADDR && !objected && !tentative) {
        into.address(index, *host);
    } else {
        into.address_deleted(index, *host);
    }
}

// Links first, then their addresses; all of it again when something was missed meanwhile.
void network_watch::on_dump_end(bool whole, link_table& into, core::instant now) {
    if (whole && dump_ == dump::links) {
        failed_ = !ask(dump::addresses);
        return;
    }
    dump_ = dump::none;
    if (whole) {
        into.end_dump();
    } else {
        repeat_at_ = now + before_repeat;
    }
}

}  // namespace tndm
