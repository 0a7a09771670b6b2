// A fuzzer's input as a script: read from front to back, so that seeds can be written by hand and a changed byte
// changes one step. Whatever is read behind the end is zero or empty.
#ifndef TANDEM_FUZZ_INPUT_H
#define TANDEM_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

namespace fuzz {

class input {
  public:
    input(const uint8_t* data, size_t size) : left_(data, size) {}

    bool more() const { return !left_.empty(); }
    uint8_t byte() {
        const std::span<const uint8_t> one = take(1);
        return one.empty() ? 0 : one[0];
    }
    bool flag() { return (byte() & 1) != 0; }
    // 0 .. end - 1; an `end` above 256 takes two bytes, one above 65536 three.
    uint32_t below(uint32_t end) {
        uint32_t value = byte();
        if (end > 256) value = value << 8 | byte();
        if (end > 65536) value = value << 8 | byte();
        return value % end;
    }
    uint32_t between(uint32_t first, uint32_t last) { return first + below(last - first + 1); }
    std::span<const uint8_t> take(size_t count) {
        const auto taken = left_.first(std::min(count, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }
    // A length (one byte, or two when it is 255), then as many bytes.
    std::span<const uint8_t> bytes() {
        size_t length = byte();
        if (length == 255) length += below(65536);
        return take(length);
    }
    std::string text() { return as_text(bytes()); }
    std::span<const uint8_t> rest() { return take(left_.size()); }

    static std::string as_text(std::span<const uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

  private:
    std::span<const uint8_t> left_;
};

// What must hold: the run ends as a finding when it does not.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "BROKEN: %s\n", what);
    std::abort();
}

// What the library prints is of no use here. Its messages go to standard output; the fuzzer's to standard error.
inline void be_quiet() {
    static const bool done = std::freopen("/dev/null", "w", stdout) != nullptr;
    require(done, "/dev/null can be opened");
}

}  // namespace fuzz

#endif  // TANDEM_FUZZ_INPUT_H
