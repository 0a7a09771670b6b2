// The one thing that a run says to the edge itself.
#ifndef TANDEM_BENCH_GRID_EDGE_H
#define TANDEM_BENCH_GRID_EDGE_H

#include <cstdint>

namespace grid {

// Seeds what the transport takes for randomness on this thread.
void seed_dice(uint64_t seed);

}  // namespace grid

#endif
