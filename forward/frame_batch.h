#ifndef TANDEM_FORWARD_FRAME_BATCH_H
#define TANDEM_FORWARD_FRAME_BATCH_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/varint.h"

namespace tandem {

// Small packets on their way to one stream: their frames, one behind the other, which the transport takes in one call
// and one allocation. What a stream carries is the same as with a call for every packet.
class frame_batch_t {
  public:
    static constexpr size_t longest_body = 65536;

    frame_batch_t() : frames_(size_t{2} * longest_body + header_room_) {}

    bool empty() const { return size_ == 0; }
    // Enough for one call; there is always room for one more body of any length until then.
    bool full() const { return frames_.size() - size_ < longest_body + 2 * header_room_; }

    // Where a body of up to `longest_body` bytes may be put, for `put` to frame it. Not to be used when full.
    uint8_t* room() { return frames_.data() + size_ + usual_header_; }
    void put(size_t size);
    // Copies a body of at most `longest_body` bytes. Not to be used when full.
    void add(const uint8_t* body, size_t size);

    void clear() { size_ = 0; }
    // Calls `each(body, size)` for every body.
    template <typename each_t>
    void for_each(each_t each) const {
        for (size_t at = 0; at < size_;) {
            uint64_t body = 0;
            at += static_cast<size_t>(t_varint_decode(frames_.data() + at, header_room_, &body));
            each(frames_.data() + at, static_cast<size_t>(body));
            at += static_cast<size_t>(body);
        }
    }
    // Queues everything on the stream and is empty then, whether it worked or not. False on failure.
    bool send(void* connection, uint64_t stream_id);

  private:
    static constexpr size_t usual_header_ = 2;  // of a body of 64 bytes to 16 KiB
    static constexpr size_t header_room_ = 4;

    std::vector<uint8_t> frames_;
    size_t size_ = 0;
};

}  // namespace tandem

#endif  // TANDEM_FORWARD_FRAME_BATCH_H
