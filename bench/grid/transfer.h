// One download over a few simulated paths, from the client's first packet to the last byte in its application's hands.
#ifndef TANDEM_BENCH_GRID_TRANSFER_H
#define TANDEM_BENCH_GRID_TRANSFER_H

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

#include "bench/grid/world.h"

namespace grid {

struct transfer_settings {
    uint64_t bytes = 20'000'000;
    std::string congestion = "bbr";
    uint64_t seed = 1;      // of the transport's own dice
    FILE* trace = nullptr;  // a time line goes there
    duration trace_interval{std::chrono::milliseconds(250)};
};

struct outcome {
    double seconds = 0;  // until the last byte, or until the run was given up
    uint64_t bytes = 0;  // that came in order
    bool complete = false;
    bool intact = true;  // every byte was the one that had been sent

    double mbit() const { return seconds > 0 ? static_cast<double>(bytes) * 8e-6 / seconds : 0; }
};

// A run is given up after ten times what the paths' capacities and a round trip would take, and a minute. Throws
// std::runtime_error when the transport cannot be started.
outcome transfer(std::span<const path_settings> paths, const transfer_settings& how);

}  // namespace grid

#endif
