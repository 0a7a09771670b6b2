#ifndef TANDEM_BENCH_RIG_FLOW_PATTERN_H
#define TANDEM_BENCH_RIG_FLOW_PATTERN_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace flow {

/** Word k of every bulk stream: a byte that is missing, doubled, moved or changed shows in the next words. */
inline uint64_t pattern_word(uint64_t k) {
    return (k + 1) * 0x9E3779B97F4A7C15U;
}
/** The last word of a stream of k words before it: a stream that ends early is not taken for a whole one. */
inline uint64_t final_word(uint64_t k) {
    return ~pattern_word(k);
}

/** Whether the bytes seen so far are the pattern, however they are cut. */
class pattern_check {
  public:
    void take(std::span<const std::byte> bytes) {
        for (const std::byte each : bytes) {
            word_ |= static_cast<uint64_t>(each) << (8 * filled_);
            if (++filled_ < 8) continue;
            if (ended_) broken_ = true;
            if (word_ == final_word(words_)) {
                ended_ = true;
            } else if (word_ != pattern_word(words_)) {
                broken_ = true;
            }
            ++words_;
            word_ = 0;
            filled_ = 0;
        }
    }
    /** Asked at the end of the stream. */
    bool whole() const { return ended_ && !broken_ && filled_ == 0; }
    bool broken() const { return broken_; }

  private:
    uint64_t word_ = 0;
    unsigned filled_ = 0;
    uint64_t words_ = 0;
    bool ended_ = false;
    bool broken_ = false;
};

}  // namespace flow

#endif /* TANDEM_BENCH_RIG_FLOW_PATTERN_H */
