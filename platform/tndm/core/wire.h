// What stands inside a datagram. Numbers are QUIC's variable-length integers (RFC 9000, section 16).
//
//   datagram   = frame | probe
//   probe      = 00 (anything that follows is ignored)
//   window     = 01 limit              the sum over all streams that the peer may send
//   stream     = 02 stream limit       the offset up to which the peer may send on a stream
//   streams    = 03 kind count         how many streams of a kind (0 both ways, 1 one way) the peer may have opened,
//   all told stop       = 04 stream             nobody reads the stream any more: the peer need not send the rest chunk
//   = 08|flags stream offset [first length] bytes-to-the-end
//                flag 1: these bytes are the last of the stream
//                flag 2: `length` bytes of stream `first` were queued before this stream and are to be delivered before
//                it
//
// Everything in a datagram may be lost, come twice or come late; the bundle sends again what matters.
#ifndef TANDEM_PLATFORM_TNDM_CORE_WIRE_H
#define TANDEM_PLATFORM_TNDM_CORE_WIRE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <variant>

namespace tndm::core::wire {

inline constexpr uint64_t varint_max = (uint64_t{1} << 62) - 1;

struct probe {};
struct window {
    uint64_t limit;
};
struct stream_window {
    uint64_t stream;
    uint64_t limit;
};
struct streams {
    uint64_t kind;
    uint64_t count;
};
struct stop {
    uint64_t stream;
};
// "These bytes of that stream come first."
struct preface {
    uint64_t stream;
    uint64_t length;
};
struct chunk {
    uint64_t stream;
    uint64_t offset;
    bool last;
    std::optional<preface> first;
    std::span<const uint8_t> bytes;  // points into the datagram
};
using frame = std::variant<probe, window, stream_window, streams, stop, chunk>;

// Nothing when the datagram is not one of ours.
std::optional<frame> decode(std::span<const uint8_t> datagram);

// The bytes in front of a chunk's data, or a whole frame of another kind.
class header {
  public:
    static constexpr size_t max_size = 1 + 4 * 8;

    static header of(const probe&);
    static header of(const window& value);
    static header of(const stream_window& value);
    static header of(const streams& value);
    static header of(const stop& value);
    // `value.bytes` is not written.
    static header of(const chunk& value);

    std::span<const uint8_t> bytes() const { return {bytes_.data(), size_}; }
    size_t size() const { return size_; }

  private:
    void put(uint64_t value);

    std::array<uint8_t, max_size> bytes_{};
    size_t size_ = 0;
};

}  // namespace tndm::core::wire

#endif
