#ifndef TANDEM_BENCH_RIG_COMMANDS_H
#define TANDEM_BENCH_RIG_COMMANDS_H

#include <deque>
#include <string>
#include <string_view>

#include "bench/rig/link.h"

namespace rig {

/** All links of the process, in the order in which they were added. References stay valid. */
struct links {
    slot_pool pool;
    std::deque<link> all;
};

/** Carries out one line and returns the answer, one line too: "ok", "ok" and a result, or "error: " and a reason.
 *
 *   add NETWORK DEVICE NETWORK DEVICE    a link between two devices, which it creates; answers its number
 *   rate|delay|loss|queue N VALUE [up|down]
 *   dark N on|off [up|down]              packets vanish
 *   seed N NUMBER                        of the losses
 *   stats                                counters of all links as a JSON list
 *
 * Without a direction both are meant. "up" leads from the first device to the second. */
std::string carry_out(links& existing, std::string_view line);

}  // namespace rig

#endif /* TANDEM_BENCH_RIG_COMMANDS_H */
