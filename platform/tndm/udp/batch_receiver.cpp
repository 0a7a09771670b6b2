#include "platform/tndm/udp/batch_receiver.h"

#include <netinet/ip.h>
#include <netinet/udp.h>

#include <cerrno>
#include <cstring>

namespace tndm {
namespace {

template <typename T>
T control_value(const cmsghdr* header) {
    T value{};
    std::memcpy(&value, CMSG_DATA(header), std::min<size_t>(sizeof value, header->cmsg_len - CMSG_LEN(0)));
    return value;
}

bool is(const cmsghdr* header, int level, int type) {
    return header->cmsg_level == level && header->cmsg_type == type;
}

}  // namespace

batch_receiver::batch_receiver()
    : buffer_(std::make_unique_for_overwrite<uint8_t[]>(message_count * message_size)), headers_{} {
    for (size_t i = 0; i < message_count; ++i) {
        vectors_[i] = {buffer_.get() + i * message_size, message_size};
        headers_[i].msg_hdr.msg_iov = &vectors_[i];
        headers_[i].msg_hdr.msg_iovlen = 1;
        headers_[i].msg_hdr.msg_name = &names_[i];
        headers_[i].msg_hdr.msg_control = &controls_[i];
    }
}

batch_receiver::~batch_receiver() = default;

int batch_receiver::read_messages(int fd) {
    for (auto& header : headers_) {
        header.msg_hdr.msg_namelen = sizeof(sockaddr_storage);
        header.msg_hdr.msg_controllen = control_size;
        header.msg_hdr.msg_flags = 0;
    }
    for (;;) {
        const int count = recvmmsg(fd, headers_.data(), message_count, MSG_DONTWAIT, nullptr);
        if (count >= 0) return count;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
        if (errno != EINTR) return -1;
    }
}

batch_receiver::message_view batch_receiver::parse(size_t index) {
    msghdr& header = headers_[index].msg_hdr;
    const size_t size = headers_[index].msg_len;
    message_view view{{}, std::max<size_t>(size, 1), 0};
    remote_ = endpoint(static_cast<const sockaddr*>(header.msg_name), header.msg_namelen);
    local_ = endpoint();
    if ((header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 || remote_.empty()) return view;

    for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
        if (is(item, SOL_UDP, UDP_GRO)) {
            const int segment = control_value<int>(item);
            if (segment > 0) view.segment_size = static_cast<size_t>(segment);
        } else if (is(item, IPPROTO_IP, IP_TOS)) {
            view.ecn = control_value<uint8_t>(item) & 3;
        } else if (is(item, IPPROTO_IPV6, IPV6_TCLASS)) {
            view.ecn = static_cast<uint8_t>(control_value<int>(item) & 3);
        } else if (is(item, IPPROTO_IP, IP_PKTINFO) && remote_.family() == AF_INET) {
            local_ = endpoint::from(control_value<in_pktinfo>(item).ipi_spec_dst, 0);
        } else if (is(item, IPPROTO_IPV6, IPV6_PKTINFO)) {
            const auto info = control_value<in6_pktinfo>(item);
            const uint32_t scope = IN6_IS_ADDR_LINKLOCAL(&info.ipi6_addr) ? info.ipi6_ifindex : 0;
            local_ = endpoint::from(info.ipi6_addr, 0, scope);
        }
    }
    view.data = {buffer_.get() + index * message_size, size};
    return view;
}

}  // namespace tndm
