#include "platform/tndm/core/wire.h"

namespace tndm::core::wire {

namespace {

constexpr uint8_t type_probe = 0x00;
constexpr uint8_t type_window = 0x01;
constexpr uint8_t type_stream_window = 0x02;
constexpr uint8_t type_streams = 0x03;
constexpr uint8_t type_stop = 0x04;
constexpr uint8_t type_chunk = 0x08;
constexpr uint8_t flag_last = 0x01;
constexpr uint8_t flag_preface = 0x02;

// Reads numbers off the front of a datagram; `failed` stays set once one was cut short.
class reader {
  public:
    explicit reader(std::span<const uint8_t> bytes) : rest_(bytes) {}

    uint64_t number() {
        if (rest_.empty()) {
            failed_ = true;
            return 0;
        }
        const size_t size = size_t{1} << (rest_[0] >> 6);
        if (size > rest_.size()) {
            failed_ = true;
            return 0;
        }
        uint64_t value = rest_[0] & 0x3f;
        for (size_t i = 1; i < size; ++i) {
            value = value << 8 | rest_[i];
        }
        rest_ = rest_.subspan(size);
        return value;
    }
    bool failed() const { return failed_; }
    bool finished() const { return !failed_ && rest_.empty(); }
    std::span<const uint8_t> rest() const { return rest_; }

  private:
    std::span<const uint8_t> rest_;
    bool failed_ = false;
};

std::optional<frame> decode_chunk(uint8_t flags, reader in) {
    chunk value{};
    value.stream = in.number();
    value.offset = in.number();
    value.last = (flags & flag_last) != 0;
    if ((flags & flag_preface) != 0) {
        const uint64_t stream = in.number();
        value.first = preface{stream, in.number()};
    }
    value.bytes = in.rest();
    if (in.failed() || value.bytes.size() > varint_max - value.offset) {
        return std::nullopt;
    }
    return value;
}

template <typename T>
std::optional<frame> whole(const reader& in, T value) {
    if (!in.finished()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<frame> decode(std::span<const uint8_t> datagram) {
    if (datagram.empty()) {
        return std::nullopt;
    }
    const uint8_t type = datagram[0];
    reader in(datagram.subspan(1));
    switch (type) {
        case type_probe:
            return probe{};
        case type_window: {
            const uint64_t limit = in.number();
            return whole(in, window{limit});
        }
        case type_stream_window: {
            const uint64_t stream = in.number();
            const uint64_t limit = in.number();
            return whole(in, stream_window{stream, limit});
        }
        case type_streams: {
            const uint64_t kind = in.number();
            const uint64_t count = in.number();
            if (kind > 1) {
                return std::nullopt;
            }
            return whole(in, streams{kind, count});
        }
        case type_stop: {
            const uint64_t stream = in.number();
            return whole(in, stop{stream});
        }
        case type_chunk:
        case type_chunk | flag_last:
        case type_chunk | flag_preface:
        case type_chunk | flag_last | flag_preface:
            return decode_chunk(type & 0x03, in);
        default:
            return std::nullopt;
    }
}

void header::put(uint64_t value) {
    const unsigned log = value < 0x40 ? 0 : value < 0x4000 ? 1 : value < 0x40000000 ? 2 : 3;
    const size_t length = size_t{1} << log;
    for (size_t i = 0; i < length; ++i) {
        bytes_[size_ + i] = static_cast<uint8_t>(value >> (8 * (length - 1 - i)));
    }
    bytes_[size_] = static_cast<uint8_t>((bytes_[size_] & 0x3f) | (log << 6));
    size_ += length;
}

header header::of(const probe&) {
    header made;
    made.bytes_[made.size_++] = type_probe;
    return made;
}

header header::of(const window& value) {
    header made;
    made.bytes_[made.size_++] = type_window;
    made.put(value.limit);
    return made;
}

header header::of(const stream_window& value) {
    header made;
    made.bytes_[made.size_++] = type_stream_window;
    made.put(value.stream);
    made.put(value.limit);
    return made;
}

header header::of(const streams& value) {
    header made;
    made.bytes_[made.size_++] = type_streams;
    made.put(value.kind);
    made.put(value.count);
    return made;
}

header header::of(const stop& value) {
    header made;
    made.bytes_[made.size_++] = type_stop;
    made.put(value.stream);
    return made;
}

header header::of(const chunk& value) {
    header made;
    made.bytes_[made.size_++] =
        static_cast<uint8_t>(type_chunk | (value.last ? flag_last : 0) | (value.first ? flag_preface : 0));
    made.put(value.stream);
    made.put(value.offset);
    if (value.first) {
        made.put(value.first->stream);
        made.put(value.first->length);
    }
    return made;
}

}  // namespace tndm::core::wire
