#include "platform/tndm/udp/batch_sender.h"

#include <netinet/ip.h>
#include <netinet/udp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/tndm/udp/socket.h"

namespace tndm {
namespace {

/* The control data of one send: source address, ECN bits, segment size. */
class control_data {
  public:
    control_data(const endpoint& remote, const endpoint* source, int ecn) {
        if (source != nullptr && !source->is_wildcard()) add_source(*source);
        if (ecn != 0) add_ecn(remote, ecn & 3);
    }

    void add_segment_size(size_t size) {
        const uint16_t value = static_cast<uint16_t>(size);
        append(SOL_UDP, UDP_SEGMENT, &value, sizeof value);
    }

    void attach_to(msghdr& header) {
        header.msg_control = used_ == 0 ? nullptr : bytes_.data();
        header.msg_controllen = used_;
    }

  private:
    void add_source(const endpoint& source) {
        if (source.family() == AF_INET) {
            in_pktinfo info{};
            info.ipi_spec_dst = source.ip4.sin_addr;
            append(IPPROTO_IP, IP_PKTINFO, &info, sizeof info);
        } else {
            in6_pktinfo info{};
            info.ipi6_addr = source.ip6.sin6_addr;
            info.ipi6_ifindex = source.ip6.sin6_scope_id;
            append(IPPROTO_IPV6, IPV6_PKTINFO, &info, sizeof info);
        }
    }

    void add_ecn(const endpoint& remote, int ecn) {
        const bool plain_ipv6 = remote.family() == AF_INET6 && !IN6_IS_ADDR_V4MAPPED(&remote.ip6.sin6_addr);
        if (plain_ipv6)
            append(IPPROTO_IPV6, IPV6_TCLASS, &ecn, sizeof ecn);
        else
            append(IPPROTO_IP, IP_TOS, &ecn, sizeof ecn);
    }

    void append(int level, int type, const void* value, size_t size) {
        cmsghdr header{};
        header.cmsg_level = level;
        header.cmsg_type = type;
        header.cmsg_len = CMSG_LEN(size);
        std::memcpy(bytes_.data() + used_, &header, sizeof header);
        std::memcpy(bytes_.data() + used_ + CMSG_LEN(0), value, size);
        used_ += CMSG_SPACE(size);
    }

    alignas(cmsghdr) std::array<uint8_t, CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int)) +
                                             CMSG_SPACE(sizeof(uint16_t))> bytes_{};
    size_t used_ = 0;
};

msghdr make_header(const endpoint& remote, iovec& vector) {
    msghdr header{};
    header.msg_name = const_cast<sockaddr*>(remote.address());
    header.msg_namelen = remote.length;
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    return header;
}

iovec make_vector(std::span<const uint8_t> data) {
    return {const_cast<uint8_t*>(data.data()), data.size()};
}

/* 0 when the kernel took all of `data`, else errno. */
int send_one(int fd, const endpoint& remote, control_data& control, std::span<const uint8_t> data) {
    iovec vector = make_vector(data);
    msghdr header = make_header(remote, vector);
    control.attach_to(header);
    while (sendmsg(fd, &header, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
        if (errno != EINTR) return errno;
    return 0;
}

/* Sends up to `max_segments` datagrams with one call each time; adds to `sent`; 0 or errno. */
int send_singly(int fd, const endpoint& remote, control_data& control, std::span<const uint8_t> data, size_t segment,
                size_t& sent) {
    while (sent < data.size()) {
        std::array<iovec, batch_sender::max_segments> vectors;
        std::array<mmsghdr, batch_sender::max_segments> headers;
        unsigned count = 0;
        for (size_t at = sent; at < data.size() && count < headers.size(); at += segment, ++count) {
            vectors[count] = make_vector(data.subspan(at, std::min(segment, data.size() - at)));
            headers[count] = {make_header(remote, vectors[count]), 0};
            control.attach_to(headers[count].msg_hdr);
        }
        const int done = sendmmsg(fd, headers.data(), count, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) return errno;
        sent = std::min(data.size(), sent + static_cast<size_t>(done) * segment);
    }
    return 0;
}

send_result conclude(int error, size_t bytes, bool has_source) {
    if (error == 0) return {send_status::sent, bytes, 0};
    if (error == EAGAIN || error == EWOULDBLOCK) return {send_status::would_block, bytes, error};
    if (is_dead_socket_error(error) || (error == EINVAL && !has_source)) return {send_status::broken, bytes, error};
    return {send_status::dropped, bytes, error};
}

}  // namespace

send_result batch_sender::send(int fd, const endpoint& remote, const endpoint* local_source,
                               std::span<const uint8_t> data, size_t segment_size, int ecn) {
    if (segment_size == 0 || segment_size > max_bytes) return {send_status::dropped, 0, EINVAL};
    const bool has_source = local_source != nullptr && !local_source->is_wildcard();
    const size_t run = std::min(max_segments, max_bytes / segment_size) * segment_size;
    control_data plain(remote, local_source, ecn);
    control_data segmented = plain;
    segmented.add_segment_size(segment_size);

    size_t sent = 0;
    while (segmentation_ && sent < data.size()) {
        const auto part = data.subspan(sent, std::min(run, data.size() - sent));
        if (part.size() <= segment_size) break;
        const int error = send_one(fd, remote, segmented, part);
        if (error == 0) {
            sent += part.size();
            continue;
        }
        if (error != EIO && error != EINVAL && error != EMSGSIZE) return conclude(error, sent, has_source);
        /* EIO: the device cannot. EINVAL is ambiguous (no segmentation here, larger than the link takes, or the source
         * address is gone), so one datagram alone decides whom to blame. */
        const auto first = part.first(segment_size);
        const int alone = send_one(fd, remote, plain, first);
        if (alone != 0) return conclude(alone, sent, has_source);
        sent += first.size();
        segmentation_ = false;
    }
    const int error = send_singly(fd, remote, plain, data, segment_size, sent);
    return conclude(error, sent, has_source);
}

}  // namespace tndm
