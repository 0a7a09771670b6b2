// Time as the core knows it: handed in with every call, never read.
#ifndef TANDEM_PLATFORM_TNDM_CORE_TIME_H
#define TANDEM_PLATFORM_TNDM_CORE_TIME_H

#include <chrono>

namespace tndm::core {

using duration = std::chrono::nanoseconds;

// A clock without now(): only whoever drives the core decides what time it is. It must not go backwards.
struct driven_clock {
    using duration = core::duration;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<driven_clock>;
    static constexpr bool is_steady = true;
};

using instant = driven_clock::time_point;

// "There is no deadline."
inline constexpr instant never = instant::max();

}  // namespace tndm::core

#endif
