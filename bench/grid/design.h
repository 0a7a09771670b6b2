// Which scenarios the grid consists of.
#ifndef TANDEM_BENCH_GRID_DESIGN_H
#define TANDEM_BENCH_GRID_DESIGN_H

#include <array>
#include <cstdint>
#include <string>

#include "bench/grid/world.h"

namespace grid {

enum class capacities {
    logarithmic,  // as many scenarios between 0.1 and 1 Mbit/s as between 10 and 100
    linear,
};

struct scenario {
    unsigned number;
    std::array<path_settings, 2> paths;
    uint64_t seed;

    std::string text() const;
};

// Scenario `number` of the design with this seed. The ranges are those of the multipath QUIC paper (De Coninck and
// Bonaventure, CoNEXT 2017): capacities of 0.1 to 100 Mbit/s, round trips of 0 to 400 ms, queueing of 0 to 100 ms,
// losses of 0 to 2.5 %. The points are a Halton sequence in eight dimensions with permuted digits: any number of them
// from the first on fills the space evenly, and a scenario stays the same when there are more.
scenario make_scenario(unsigned number, uint64_t seed, capacities how);

}  // namespace grid

#endif
