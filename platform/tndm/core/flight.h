// What a lane has sent and not heard of yet: a ring of records, one a datagram, indexed by the datagram's id.
#ifndef TANDEM_PLATFORM_TNDM_CORE_FLIGHT_H
#define TANDEM_PLATFORM_TNDM_CORE_FLIGHT_H

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/tndm/core/range_set.h"
#include "platform/tndm/core/time.h"

namespace tndm::core {

enum class content : uint8_t { probe, window, stream_window, streams, stop, chunk };

// in_flight -> resolved                      acknowledged
// in_flight -> late -> resolved              declared lost, but acknowledged within the hold-off
//              late -> moved -> resolved     sent again elsewhere; an acknowledgement still cancels the copy
// in_flight -> moved -> resolved             the lane fell silent
enum class fate : uint8_t { in_flight, late, moved, resolved };

struct transmission {
    uint64_t stream = 0;  // of a chunk or a stream window; the kind for `streams`
    range part;           // of a chunk
    instant sent_at{};
    content what = content::probe;
    fate state = fate::resolved;
    bool copy = false;  // went out on another lane before: not copied again from here
};

class flight {
  public:
    // Ids count up from 0 and are never used twice.
    uint64_t next_id() const { return end_; }
    uint64_t oldest_id() const { return begin_; }
    bool empty() const { return begin_ == end_; }
    // Datagrams in state in_flight.
    uint64_t outstanding() const { return outstanding_; }

    void add(const transmission& sent) {
        if (end_ - begin_ == ring_.size()) {
            grow();
        }
        ring_[slot(end_)] = sent;
        ++end_;
        ++outstanding_;
    }
    // Null for an id that is resolved and forgotten, or was never used.
    transmission* find(uint64_t id) { return id >= begin_ && id < end_ ? &ring_[slot(id)] : nullptr; }
    const transmission* find(uint64_t id) const { return const_cast<flight*>(this)->find(id); }
    void set(transmission& record, fate state) {
        if (record.state == fate::in_flight) {
            --outstanding_;
        }
        record.state = state;
        while (begin_ != end_ && ring_[slot(begin_)].state == fate::resolved) {
            ++begin_;
        }
    }

  private:
    // The ring's size is a power of two.
    size_t slot(uint64_t id) const { return static_cast<size_t>(id) & (ring_.size() - 1); }
    void grow() {
        std::vector<transmission> larger(ring_.size() * 2);
        for (uint64_t id = begin_; id != end_; ++id) {
            larger[static_cast<size_t>(id) & (larger.size() - 1)] = ring_[slot(id)];
        }
        ring_ = std::move(larger);
    }

    std::vector<transmission> ring_ = std::vector<transmission>(64);
    uint64_t begin_ = 0;
    uint64_t end_ = 0;
    uint64_t outstanding_ = 0;
};

}  // namespace tndm::core

#endif
