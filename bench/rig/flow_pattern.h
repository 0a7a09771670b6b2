#ifndef TANDEM_BENCH_RIG_FLOW_PATTERN_H
#define TANDEM_BENCH_RIG_FLOW_PATTERN_H

#include <algorithm>
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
        while (!bytes.empty()) {
            const size_t taken = std::min(bytes.size(), sizeof word_ - filled_);
            std::memcpy(reinterpret_cast<char*>(&word_) + filled_, bytes.data(), taken);
            bytes = bytes.subspan(taken);
            filled_ += taken;
            if (filled_ < sizeof word_) return;
            filled_ = 0;
            take_word();
        }
    }
    /** Asked at the end of the stream. */
    bool whole() const { return ended_ && !broken_ && filled_ == 0; }
    bool broken() const { return broken_; }

  private:
    void take_word() {
        if (ended_) broken_ = true;
        if (word_ == final_word(words_)) {
            ended_ = true;
        } else if (word_ != pattern_word(words_)) {
            broken_ = true;
        }
        ++words_;
    }

    uint64_t word_ = 0;
    size_t filled_ = 0;
    uint64_t words_ = 0;
    bool ended_ = false;
    bool broken_ = false;
};

}  // namespace flow

#endif /* TANDEM_BENCH_RIG_FLOW_PATTERN_H */
