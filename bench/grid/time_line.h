// What a run looks like from inside, a line a lane and moment.
#ifndef TANDEM_BENCH_GRID_TIME_LINE_H
#define TANDEM_BENCH_GRID_TIME_LINE_H

#include <cstdio>

#include "bench/grid/world.h"

namespace grid {

struct connection_end {
    void* instance;
    void* connection;  // null before it is established
};

void print_time_line(FILE* out, const world& of, duration at, uint64_t delivered, connection_end receiver,
                     connection_end sender);

}  // namespace grid

#endif
