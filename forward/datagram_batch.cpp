#include "forward/datagram_batch.h"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tandem {

namespace {

constexpr size_t most_queued_bytes = 256 * 1024;
// What a queued datagram costs beside its bytes, so that many small ones count too.
constexpr size_t overhead = 192;

size_t cost(const packet_t& datagram) {
    return datagram.size() + overhead;
}

// Whether the kernel cuts one message into datagrams. Sockets of other kinds and old kernels would send it as it is.
bool cuts_runs(int fd) {
    int size = 0;
    socklen_t length = sizeof(size);
    return getsockopt(fd, SOL_UDP, UDP_SEGMENT, &size, &length) == 0;
}

// The first datagrams of a queue for one sendmmsg: those of equal size, with a last one that may be shorter, are one
// message (a run), which crosses the kernel as one packet.
class outgoing_runs_t {
  public:
    outgoing_runs_t(const sockaddr_storage& to, bool cut) : to_(to), longest_run_(cut ? most_parts : 1) {}
    outgoing_runs_t(const outgoing_runs_t&) = delete;
    outgoing_runs_t& operator=(const outgoing_runs_t&) = delete;

    void describe(const packet_queue_t& queue) {
        count_ = 0;
        for (size_t at = 0; at < queue.size() && at < most_parts; ++count_) {
            const size_t length = run_length(queue, at);
            for (size_t i = at; i < at + length; ++i) {
                parts_[i] = {queue[i]->data(), queue[i]->size()};
            }
            put(&parts_[at], length);
            at += length;
            ends_[count_] = at;
        }
    }
    // The messages sent, or -1 with errno when the first one failed.
    int send(int fd) { return sendmmsg(fd, messages_, count_, MSG_DONTWAIT | MSG_NOSIGNAL); }
    size_t datagrams(int messages) const { return messages > 0 ? ends_[messages - 1] : 0; }
    void give_up() { longest_run_ = 1; }

  private:
    static constexpr size_t most_parts = 64;     // what the kernel cuts one message into
    static constexpr size_t most_bytes = 65000;  // of one message

    size_t run_length(const packet_queue_t& queue, size_t at) const {
        const size_t size = queue[at]->size(), end = std::min({queue.size(), most_parts, at + longest_run_});
        size_t next = at + 1, total = size;
        while (size > 0 && next < end && queue[next]->size() > 0 && queue[next]->size() <= size &&
               total + queue[next]->size() <= most_bytes) {
            total += queue[next]->size();
            if (queue[next++]->size() < size) break;
        }
        return next - at;
    }

    void put(iovec* parts, size_t length) {
        msghdr& header = messages_[count_].msg_hdr;
        header = {};
        header.msg_name = const_cast<sockaddr_storage*>(&to_);
        header.msg_namelen = sizeof(to_);
        header.msg_iov = parts;
        header.msg_iovlen = length;
        if (length == 1) return;
        header.msg_control = controls_[count_].bytes;
        header.msg_controllen = sizeof(control_t);
        cmsghdr& control = *CMSG_FIRSTHDR(&header);
        control.cmsg_level = SOL_UDP;
        control.cmsg_type = UDP_SEGMENT;
        control.cmsg_len = CMSG_LEN(sizeof(uint16_t));
        const auto size = static_cast<uint16_t>(parts->iov_len);
        std::memcpy(CMSG_DATA(&control), &size, sizeof(size));
    }

    struct control_t {
        alignas(cmsghdr) uint8_t bytes[CMSG_SPACE(sizeof(uint16_t))];
    };

    const sockaddr_storage& to_;
    size_t longest_run_;
    unsigned count_ = 0;
    mmsghdr messages_[most_parts];
    iovec parts_[most_parts];
    control_t controls_[most_parts] = {};
    size_t ends_[most_parts];
};

}  // namespace

datagram_batch_t::datagram_batch_t() : memory_(new uint8_t[longest_ * most]) {
    for (int i = 0; i < most; ++i) {
        parts_[i] = {memory_.get() + static_cast<size_t>(i) * longest_, longest_};
        messages_[i].msg_hdr.msg_iov = &parts_[i];
        messages_[i].msg_hdr.msg_iovlen = 1;
        messages_[i].msg_hdr.msg_name = &from_[i];
    }
}

int datagram_batch_t::receive(int fd) {
    for (int i = 0; i < most; ++i) {
        from_[i] = {};
        messages_[i].msg_hdr.msg_namelen = sizeof(from_[i]);
    }
    return recvmmsg(fd, messages_, most, MSG_DONTWAIT, nullptr);
}

void push_datagram(packet_queue_t& queue, size_t& bytes, std::shared_ptr<packet_t> datagram) {
    bytes += cost(*datagram);
    queue.push_back(std::move(datagram));
    while (bytes > most_queued_bytes && queue.size() > 1) {
        pop_datagram(queue, bytes);
    }
}

void pop_datagram(packet_queue_t& queue, size_t& bytes) {
    bytes -= cost(*queue.front());
    queue.pop_front();
}

int send_datagrams(int fd, packet_queue_t& queue, size_t& bytes, const sockaddr_storage& to) {
    outgoing_runs_t runs(to, queue.size() > 1 && cuts_runs(fd));
    int error = 0;
    while (!queue.empty()) {
        runs.describe(queue);
        const int sent = runs.send(fd);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && runs.datagrams(1) > 1) {
            // The datagrams do not fit the network whole, or the device cannot cut.
            runs.give_up();
            continue;
        }
        if (sent < 0) error = errno;  // the first one failed: the others get their own try
        for (size_t done = runs.datagrams(std::max(sent, 1)); done > 0; --done) {
            pop_datagram(queue, bytes);
        }
    }
    return error;
}

}  // namespace tandem
