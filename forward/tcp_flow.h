#ifndef TANDEM_FORWARD_TCP_FLOW_H
#define TANDEM_FORWARD_TCP_FLOW_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "common/export.h"
#include "common/packet.h"

namespace tandem {

using packet_queue_t = std::deque<std::shared_ptr<packet_t>>;

// Bounds of a queue in bytes: filling stops above `high` and goes on at `low`.
struct flow_marks_t {
    uint64_t high = 0;
    uint64_t low = 0;
};

// With a transport that does not tell a stream's backlog: the connection's, which all instances share. Looked at twice
// a second while reading is stopped, so it is also what half a second can carry.
inline constexpr flow_marks_t connection_marks{8 << 20, 4 << 20};

// The bounds of each direction of one instance among `instances`. 1 MiB keeps a gigabit link busy for 8 ms, far longer
// than a writable notice takes; many instances share 32 MiB, so that a router's memory suffices, but 128 KiB (two
// reads) is the least that an instance works well with.
TANDEM_API flow_marks_t flow_marks(size_t instances);

// How far one TCP instance has come with lossless delivery.
struct TANDEM_API tcp_flow_t {
    // What a queued packet costs besides its bytes, so that many small packets count too.
    static constexpr size_t packet_overhead = 192;

    // Under the record's lock.
    size_t front_written = 0;     // bytes of the first queued packet that are on the socket
    size_t queued = 0;            // bytes that the queue holds, with the overhead
    bool stream_ended = false;    // the peer has ended its direction: nothing more is queued
    bool receive_paused = false;  // the transport holds the stream back
    bool start_queued = false;    // waits in tx_start_queue

    // Loop's thread.
    bool connected = false;    // the socket has been writable once
    bool read_ended = false;   // end of file read and passed on
    bool write_ended = false;  // all is written and the socket shut down for writing
    bool read_paused = false;  // reading stopped: too much unsent, or no descriptor left to accept with

    void push(packet_queue_t& queue, std::shared_ptr<packet_t> packet);
    // Describes the unwritten bytes of the first packets; returns the number of parts, at most `most`. The parts stay
    // valid while the packets are queued.
    int gather(const packet_queue_t& queue, iovec* parts, int most) const;
    // Takes `bytes` that are written off the front.
    void consume(packet_queue_t& queue, size_t bytes);
};

}  // namespace tandem

#endif  // TANDEM_FORWARD_TCP_FLOW_H
