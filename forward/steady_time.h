#ifndef TANDEM_FORWARD_STEADY_TIME_H
#define TANDEM_FORWARD_STEADY_TIME_H

#include <chrono>
#include <cstdint>

namespace tandem {

// Steady clock, microseconds.
inline int64_t steady_time_us() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::microseconds(1);
}

}  // namespace tandem

#endif  // TANDEM_FORWARD_STEADY_TIME_H
