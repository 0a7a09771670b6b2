#ifndef TANDEM_BENCH_RIG_UNITS_H
#define TANDEM_BENCH_RIG_UNITS_H

#include <chrono>
#include <cstdint>
#include <string_view>

namespace rig {

using nanoseconds = std::chrono::nanoseconds;

/** Each of these throws std::invalid_argument, with the text in its message, for what it does not understand. */

/** Bits per second: "20M", "1.5G", "64k", "9600" (decimal multiples); "none" is 0, which means unlimited. */
uint64_t parse_rate(std::string_view text);
/** "10ms", "250us", "1.5s"; the unit is required. */
nanoseconds parse_time(std::string_view text);
/** Bytes: "250k", "1M", "1500" (decimal multiples). */
uint64_t parse_bytes(std::string_view text);
/** A part of one: "0.01" or "1%". */
double parse_share(std::string_view text);
/** A whole number. */
uint64_t parse_count(std::string_view text);

}  // namespace rig

#endif /* TANDEM_BENCH_RIG_UNITS_H */
