/* Runs of datagrams to one peer with as few system calls as the kernel allows. */
#ifndef TANDEM_PLATFORM_TNDM_UDP_BATCH_SENDER_H
#define TANDEM_PLATFORM_TNDM_UDP_BATCH_SENDER_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/tndm/udp/address.h"

namespace tndm {

enum class send_status {
    sent,        /* every byte is with the kernel */
    would_block, /* the socket's buffer is full: send what follows `bytes` when the socket is writable */
    dropped,     /* what follows `bytes` is lost as if the network had lost it; the socket lives (see `error`) */
    broken       /* the socket is dead: give it up */
};

struct send_result {
    send_status status;
    size_t bytes; /* accepted by the kernel, a whole number of datagrams */
    int error;    /* the errno behind `would_block`, `dropped` and `broken`, else 0 */
};

/* One for each socket (it remembers whether the socket's path has segmentation offload). Not thread-safe.
 *
 * Errors sort so: EAGAIN is `would_block`. EBADF, ENOTSOCK, ENODEV, ENXIO, EADDRNOTAVAIL, EAFNOSUPPORT, ESHUTDOWN,
 * EPIPE, EDESTADDRREQ, and EINVAL of a send without `local_source` (the bound address has left the machine) are
 * `broken`. All others are `dropped`: EMSGSIZE (larger than the link takes), ECONNREFUSED, ENETUNREACH, EHOSTUNREACH,
 * ENETDOWN, EPERM, EACCES, ENOBUFS, ENOMEM, and EINVAL of a send with `local_source`. */
class batch_sender {
  public:
    static constexpr size_t max_segments = 64;
    /* The largest payload of one UDP_SEGMENT send: 65535 less the IPv4 and UDP headers. */
    static constexpr size_t max_bytes = 65507;

    /* `segmentation` false: never tries UDP_SEGMENT. */
    explicit batch_sender(bool segmentation = true) : segmentation_(segmentation) {}
    batch_sender(const batch_sender&) = delete;
    batch_sender& operator=(const batch_sender&) = delete;

    /* Sends `data`, which is datagrams of `segment_size` bytes (1..65507) end to end, the last one possibly shorter.
     * `local_source` (may be null; its port is ignored) is the local address that they leave from; `ecn` is the two ECN
     * bits (0..3). Returns `dropped` with EINVAL for a segment size out of range. */
    send_result send(int fd, const endpoint& remote, const endpoint* local_source, std::span<const uint8_t> data,
                     size_t segment_size, int ecn);

    bool segmentation() const { return segmentation_; }

  private:
    bool segmentation_;
};

}  // namespace tndm

#endif
