#include "forward/datagram_batch.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tandem {

namespace {

constexpr size_t most_queued_bytes = 256 * 1024;
// What a queued datagram costs beside its bytes, so that many small ones count too.
constexpr size_t overhead = 192;

size_t cost(const packet_t& datagram) {
    return datagram.size() + overhead;
}

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
    constexpr size_t most_a_call = 32;
    mmsghdr messages[most_a_call];
    iovec parts[most_a_call];
    int error = 0;
    while (!queue.empty()) {
        const size_t count = std::min(queue.size(), most_a_call);
        for (size_t i = 0; i < count; ++i) {
            parts[i] = {queue[i]->data(), queue[i]->size()};
            messages[i] = {};
            messages[i].msg_hdr.msg_name = const_cast<sockaddr_storage*>(&to);
            messages[i].msg_hdr.msg_namelen = sizeof(to);
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        int sent = sendmmsg(fd, messages, static_cast<unsigned>(count), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            error = errno;
            sent = 1;  // the first one failed: the others get their own try
        }
        for (; sent > 0; --sent) {
            pop_datagram(queue, bytes);
        }
    }
    return error;
}

}  // namespace tandem
