// One direction of a simulated path: a drop-tail queue, a wire with a rate and a delay, and what can go wrong with it.
#ifndef TANDEM_TESTS_CORE_LINK_H
#define TANDEM_TESTS_CORE_LINK_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "platform/tndm/core/range_set.h"
#include "platform/tndm/core/time.h"
#include "tests/core/random.h"

namespace tndm::sim {

using core::duration;
using core::instant;

// Answers to a request carry `accept`; everything else is `data`.
enum class purpose : uint8_t { data, request, accept };

struct packet {
    uint32_t connection = 0;
    uint64_t number = 0;
    purpose what = purpose::data;
    bool eliciting = false;          // the receiver has to acknowledge it
    std::vector<uint8_t> datagram;   // empty: none
    std::vector<core::range> acked;  // numbers that have arrived, the newest first; empty: no acknowledgement
    duration ack_delay{0};           // how long the newest of them has waited for it

    // Bytes on the wire: addresses, connection id, number and tag come to 45.
    size_t size() const { return 45 + datagram.size() + (acked.empty() ? 0 : 5 + 4 * acked.size()); }
};

struct link_settings {
    double mbit = 50;                               // rate
    duration delay{std::chrono::milliseconds(20)};  // one way
    duration jitter{0};   // added to each packet, uniformly from 0: packets overtake each other
    size_t queue = 0;     // bytes; 0: what the rate carries in twice the delay, 30 kB at least
    double loss = 0;      // share of packets
    double burst = 1;     // mean number of packets lost in a row; 1: each on its own
    bool backup = false;  // the lanes over it are
};

class link {
  public:
    link(const link_settings& settings, uint64_t seed);

    // When the packet comes out; nothing when it is lost.
    std::optional<instant> carry(const packet& carried, instant now);
    // A packet that went in during `era` still comes out.
    bool lit_since(uint64_t era) const { return !dark_ && era_ == era; }
    uint64_t era() const { return era_; }
    // Darkness swallows what is under way, too.
    void set_dark(bool dark) {
        dark_ = dark;
        ++era_;
    }
    const link_settings& settings() const { return settings_; }
    // Bytes put on the wire so far, lost ones included.
    uint64_t bytes_carried() const { return bytes_carried_; }

    // A test's own hand on single packets: the delay to add to it, or nothing to lose it.
    std::function<std::optional<duration>(const packet&)> hand;

  private:
    bool unlucky();

    uint64_t bytes_carried_ = 0;
    link_settings settings_;
    dice dice_;
    instant free_at_{};
    uint64_t era_ = 0;
    bool dark_ = false;
    bool in_burst_ = false;
};

}  // namespace tndm::sim

#endif
