#ifndef TANDEM_BENCH_RIG_PIPE_H
#define TANDEM_BENCH_RIG_PIPE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "bench/rig/units.h"

namespace rig {

inline constexpr size_t slot_bytes = 2048;
using slot = std::array<std::byte, slot_bytes>;

/** Packet buffers that are used again; it only grows. */
class slot_pool {
  public:
    slot* take();
    void give_back(slot* used) { free_.push_back(used); }

  private:
    std::vector<std::unique_ptr<slot[]>> slabs_;
    std::vector<slot*> free_;
};

/** One direction of a link: a drop-tail queue in front of a transmitter of a fixed rate, then a wire that takes a fixed
 * time and loses packets. A lost packet has used the transmitter's time, as on a real wire. Nothing here waits: the
 * caller brings the time, which never goes back, and asks when to come again.
 *
 * Packets are handed in and out as slots of one pool; a packet that is dropped or lost goes back to it at once. */
class pipe {
  public:
    struct settings {
        uint64_t bits_per_second = 0; /**< 0: unlimited. */
        nanoseconds delay{0};
        double loss = 0;
        uint64_t queue_bytes = 1'000'000; /**< What may wait, the packet being sent included. */
        bool dark = false;                /**< What leaves the transmitter vanishes; the sender notices nothing. */
    };
    struct counters {
        uint64_t in_packets = 0;
        uint64_t in_bytes = 0;
        uint64_t out_packets = 0;
        uint64_t out_bytes = 0;
        uint64_t dropped = 0; /**< The queue was full. */
        uint64_t lost = 0;
        uint64_t darkened = 0;
        uint64_t most_queued = 0; /**< Bytes, since the last look. */
    };
    struct packet {
        slot* data = nullptr;
        size_t bytes = 0;
        nanoseconds due{0};
    };

    explicit pipe(slot_pool& pool) : pool_(&pool) {}

    const settings& now_set() const { return settings_; }
    void set(const settings& wanted, nanoseconds now);
    /** The same seed and the same packets give the same losses. */
    void seed(uint64_t value) { random_.seed(value); }

    void offer(slot* data, size_t bytes, nanoseconds now);
    /** A packet that has arrived at the far end by now. The caller gives its slot back to the pool. */
    std::optional<packet> arrived(nanoseconds now);
    /** When something may arrive next. */
    std::optional<nanoseconds> next_arrival() const;

    uint64_t queued_bytes() const { return queued_bytes_; }
    const counters& counted() const { return counters_; }
    void forget_most_queued() { counters_.most_queued = queued_bytes_; }

  private:
    void transmit(nanoseconds now);
    nanoseconds transmission_time(size_t bytes) const;

    slot_pool* pool_;
    settings settings_;
    counters counters_;
    std::mt19937_64 random_{1};
    std::deque<packet> queue_;
    std::deque<packet> wire_;
    uint64_t queued_bytes_ = 0;
    nanoseconds head_leaves_{
        0}; /**< When the queue's first packet has been sent; while it is empty: when its last one was. */
};

}  // namespace rig

#endif /* TANDEM_BENCH_RIG_PIPE_H */
