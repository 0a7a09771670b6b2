#ifndef TANDEM_FORWARD_DATAGRAM_BATCH_H
#define TANDEM_FORWARD_DATAGRAM_BATCH_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/packet.h"
#include "forward/tcp_flow.h"

namespace tandem {

// The datagrams of one recvmmsg. There is room for the longest in each place, but memory only where some have been:
// pages that are never written cost nothing.
class datagram_batch_t {
  public:
    static constexpr int most = 32;

    datagram_batch_t();
    datagram_batch_t(const datagram_batch_t&) = delete;
    datagram_batch_t& operator=(const datagram_batch_t&) = delete;

    // Receives what is there, at most `most`: the number, or -1 with errno.
    int receive(int fd);
    // Of the last call. They are valid until the next one.
    const uint8_t* data(int i) const { return memory_.get() + static_cast<size_t>(i) * longest_; }
    size_t size(int i) const { return messages_[i].msg_len; }
    sockaddr_storage& from(int i) { return from_[i]; }

  private:
    static constexpr size_t longest_ = 65536;

    std::unique_ptr<uint8_t[]> memory_;
    mmsghdr messages_[most] = {};
    iovec parts_[most] = {};
    sockaddr_storage from_[most] = {};
};

// Queues a datagram within bounds: the oldest ones make room, for they are the first to be out of date. `bytes` is what
// the queue holds.
void push_datagram(packet_queue_t& queue, size_t& bytes, std::shared_ptr<packet_t> datagram);
void pop_datagram(packet_queue_t& queue, size_t& bytes);

// Sends every queued datagram to one address, in order, and empties the queue. What the socket does not take is lost,
// as on a network. 0, or the error of the last one that failed.
int send_datagrams(int fd, packet_queue_t& queue, size_t& bytes, const sockaddr_storage& to);

}  // namespace tandem

#endif  // TANDEM_FORWARD_DATAGRAM_BATCH_H
