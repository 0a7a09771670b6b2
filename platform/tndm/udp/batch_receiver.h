/* Datagrams from any socket, many with one system call. */
#ifndef TANDEM_PLATFORM_TNDM_UDP_BATCH_RECEIVER_H
#define TANDEM_PLATFORM_TNDM_UDP_BATCH_RECEIVER_H

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/tndm/udp/address.h"

namespace tndm {

/* Valid until the callback that got it returns. */
struct received_datagram {
    std::span<const uint8_t> data;
    const endpoint& remote;
    const endpoint& local; /* where it arrived: the address, with port 0; empty when the socket does not say */
    uint8_t ecn;           /* 0..3 */
};

/* Buffers for one batch, shared by all sockets of a thread (about 2 MiB of address space, of which only what datagrams
 * touched is resident). Not thread-safe, not re-entrant: the callback must not call `receive` of the same object or
 * destroy it. */
class batch_receiver {
  public:
    static constexpr size_t message_count = 32;
    static constexpr size_t message_size = 65536;

    batch_receiver();
    ~batch_receiver();
    batch_receiver(const batch_receiver&) = delete;
    batch_receiver& operator=(const batch_receiver&) = delete;

    /* Reads at most `message_count` messages and calls `on_datagram(const received_datagram&)` for each datagram in
     * them, empty ones left out. The number of messages read (0 only when the socket has nothing more), or -1 with
     * errno. A result of `message_count` means that there may be more. */
    template <typename F>
    int receive(int fd, F&& on_datagram) {
        const int messages = read_messages(fd);
        for (int i = 0; i < messages; ++i) {
            const message_view view = parse(static_cast<size_t>(i));
            for (size_t at = 0; at < view.data.size(); at += view.segment_size) {
                const size_t size = std::min(view.segment_size, view.data.size() - at);
                on_datagram(received_datagram{view.data.subspan(at, size), remote_, local_, view.ecn});
            }
        }
        return messages;
    }

  private:
    struct message_view {
        std::span<const uint8_t> data; /* empty when the kernel cut the message or its control data off */
        size_t segment_size; /* of the datagrams coalesced into `data`, the last one possibly shorter; never 0 */
        uint8_t ecn;
    };
    static constexpr size_t control_size = 256;
    struct alignas(cmsghdr) control_buffer {
        std::array<uint8_t, control_size> bytes;
    };

    int read_messages(int fd);
    /* Also fills `remote_` and `local_`. */
    message_view parse(size_t index);

    std::unique_ptr<uint8_t[]> buffer_;
    std::array<mmsghdr, message_count> headers_;
    std::array<iovec, message_count> vectors_;
    std::array<sockaddr_storage, message_count> names_;
    std::array<control_buffer, message_count> controls_;
    endpoint remote_;
    endpoint local_;
};

}  // namespace tndm

#endif
