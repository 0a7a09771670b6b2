#ifndef TANDEM_GATEWAY_CLOCK_H
#define TANDEM_GATEWAY_CLOCK_H

#include <chrono>
#include <cstdint>

namespace tandem {

// The steady clock in microseconds.
inline int64_t clock_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace tandem

#endif  // TANDEM_GATEWAY_CLOCK_H
