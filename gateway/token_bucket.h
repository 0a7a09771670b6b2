#ifndef TANDEM_GATEWAY_TOKEN_BUCKET_H
#define TANDEM_GATEWAY_TOKEN_BUCKET_H

#include <algorithm>
#include <cstdint>

namespace tandem {

// So many a second, and as many at once after a quiet second. Times are microseconds of a steady clock. One thread.
class token_bucket_t {
  public:
    explicit token_bucket_t(uint64_t per_second) : per_second_(per_second), level_(per_second * unit) {}

    bool take(int64_t now_us) {
        if (now_us > last_us_) {
            const uint64_t passed = std::min<uint64_t>(static_cast<uint64_t>(now_us - last_us_), unit);
            level_ = std::min(level_ + passed * per_second_, per_second_ * unit);
            last_us_ = now_us;
        }
        if (level_ < unit) return false;
        level_ -= unit;
        return true;
    }

  private:
    static constexpr uint64_t unit = 1'000'000;

    uint64_t per_second_;
    uint64_t level_;
    int64_t last_us_ = 0;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_TOKEN_BUCKET_H
