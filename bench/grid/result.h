// What came out of the scenarios.
#ifndef TANDEM_BENCH_GRID_RESULT_H
#define TANDEM_BENCH_GRID_RESULT_H

#include <cstdio>
#include <vector>

#include "bench/grid/design.h"

namespace grid {

struct cell {
    scenario of;
    double a = 0;     // goodput of path A alone, Mbit/s
    double b = 0;     // of path B alone
    double both = 0;  // of the two together
    bool intact = true;
    bool complete = true;

    double best() const { return a > b ? a : b; }
    // Experimental aggregation benefit (Kaspar 2012; Paasch et al. 2013): -1 nothing, 0 the best path alone, 1 the sum.
    double benefit() const;
    // Goodput over the best path's; 1 is the same.
    double ratio() const { return best() > 0 ? both / best() : 0; }
};

void print_cell(FILE* out, const cell& one);
void print_csv(FILE* out, const std::vector<cell>& all);
void print_summary(FILE* out, std::vector<cell> all);

}  // namespace grid

#endif
