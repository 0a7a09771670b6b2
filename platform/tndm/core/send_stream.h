// The sending side of one stream: bytes queued, bytes under way, bytes to send again.
//
// The end of the stream is treated as one more byte behind the last one, so that ranges alone say what was sent,
// acknowledged and lost; only the wire and the flow control know that this byte does not exist.
#ifndef TANDEM_PLATFORM_TNDM_CORE_SEND_STREAM_H
#define TANDEM_PLATFORM_TNDM_CORE_SEND_STREAM_H

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "platform/tndm/core/buffer.h"
#include "platform/tndm/core/range_set.h"
#include "platform/tndm/core/time.h"

namespace tndm::core {

// The pieces of memory that make up one chunk; they stay valid until the stream hears of an acknowledgement or is
// destroyed.
struct pieces {
    static constexpr size_t max_count = 14;

    std::array<std::span<const uint8_t>, max_count> parts{};
    size_t count = 0;
    size_t bytes = 0;
};

class send_stream {
  public:
    // `limit`: the offset up to which the peer lets us send.
    explicit send_stream(uint64_t limit) : limit_(limit) {}

    // Application side. Nothing may be queued after the end.
    void queue(buffer&& bytes);
    void finish() { finished_ = true; }
    bool finished() const { return finished_; }
    // The peer reads no more: what was never sent is dropped and the stream ends here. Returns how many bytes that is.
    uint64_t cut_short();

    void raise_limit(uint64_t limit) { limit_ = limit > limit_ ? limit : limit_; }

    // The first offset that was never sent.
    uint64_t first_unsent() const { return next_; }
    // Bytes queued and never sent.
    uint64_t unsent() const { return end_ > next_ ? end_ - next_ : 0; }
    // Whether there is anything new that may go out while the connection lets us send `room` more bytes.
    bool has_fresh(uint64_t room) const;
    // The next new range of at most `max` bytes; empty when there is none.
    range fresh(uint64_t max, uint64_t room) const;
    void mark_fresh_sent(range sent) { next_ = sent.end; }

    bool has_resend() const { return !resend_.empty(); }
    // Bytes in line to be sent again, as far as the first few ranges tell.
    uint64_t resend_bytes() const { return resend_.bytes(16); }
    // Since when the first range of `resend` has waited.
    instant resend_since() const { return resend_since_; }
    range resend(uint64_t max) const;
    void mark_resent(range sent);
    // Puts what is not acknowledged of `lost` back in line.
    void requeue(range lost, instant now);
    // The part of `sent` that the peer has not acknowledged yet, from its beginning; empty when all of it has arrived.
    range still_needed(range sent) const;

    // What the range holds in bytes; pieces() may give less than asked when the memory is too scattered.
    pieces gather(range wanted) const;
    // Whether the range holds the end of the stream.
    bool reaches_end(range part) const { return finished_ && part.end > end_; }

    void acknowledge(range arrived);
    // Everything up to here has arrived.
    uint64_t acknowledged_prefix() const { return base_; }
    bool all_acknowledged() const { return base_ >= end_ + (finished_ ? 1 : 0); }
    // The end itself is acknowledged: nothing more will ever be sent.
    bool done() const { return finished_ && base_ > end_; }

  private:
    struct segment {
        uint64_t begin;
        buffer bytes;
        uint64_t end() const { return begin + bytes.size(); }
    };

    size_t find(uint64_t offset) const;

    std::deque<segment> segments_;
    uint64_t base_ = 0;  // acknowledged without a gap, the virtual end byte included
    uint64_t next_ = 0;  // first offset never sent, the virtual end byte included
    uint64_t end_ = 0;   // bytes queued in all
    uint64_t limit_;
    bool finished_ = false;
    range_set acknowledged_;
    range_set resend_;
    instant resend_since_{};
};

}  // namespace tndm::core

#endif
