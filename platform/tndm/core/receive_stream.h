// The receiving side of one stream: chunks in any order and any number in, bytes in order out.
#ifndef TANDEM_PLATFORM_TNDM_CORE_RECEIVE_STREAM_H
#define TANDEM_PLATFORM_TNDM_CORE_RECEIVE_STREAM_H

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace tndm::core {

class receive_stream {
  public:
    enum class result { ok, window_exceeded, inconsistent_end };

    // `limit`: the offset up to which the peer may send.
    explicit receive_stream(uint64_t limit) : limit_(limit) {}

    // Takes one chunk; what came before is dropped. The bytes are copied.
    result receive(uint64_t offset, std::span<const uint8_t> bytes, bool last);
    void raise_limit(uint64_t limit) { limit_ = limit > limit_ ? limit : limit_; }
    uint64_t limit() const { return limit_; }

    // One past the highest offset ever received: what the peer has used of its windows.
    uint64_t highest() const { return highest_; }
    // Whether these bytes would make more of the stream ready.
    bool continues(uint64_t offset, size_t size) const { return offset <= next_ && offset + size > next_; }
    // In order and not taken yet.
    size_t ready() const { return ready_.size(); }
    // There is something to take: bytes, or the end.
    bool deliverable() const { return !ready_.empty() || (at_end() && !end_taken_); }
    // Moves the bytes that are in order into `out`; true when they are the last of the stream. The stream keeps no
    // memory of its own then.
    bool take(std::vector<uint8_t>& out);
    // Memory for the bytes to come; only while none are ready.
    void lend(std::vector<uint8_t>&& memory) { ready_ = std::move(memory); }
    // Bytes taken so far.
    uint64_t taken() const { return next_ - ready_.size(); }
    bool done() const { return end_taken_; }
    bool end_known() const { return end_.has_value(); }
    // Runs of bytes that wait behind a hole: each costs memory beyond its bytes.
    size_t gaps() const { return waiting_.size(); }

  private:
    bool at_end() const { return end_ && next_ == *end_; }
    void store(uint64_t offset, std::span<const uint8_t> bytes);
    void join();

    uint64_t limit_;
    uint64_t next_ = 0;  // everything below is in order
    uint64_t highest_ = 0;
    std::optional<uint64_t> end_;
    bool end_taken_ = false;
    std::vector<uint8_t> ready_;
    // Runs that do not overlap; those that touch are joined while the run is small.
    std::map<uint64_t, std::vector<uint8_t>> waiting_;
};

}  // namespace tndm::core

#endif
