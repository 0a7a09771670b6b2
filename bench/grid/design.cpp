#include "bench/grid/design.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <random>
#include <vector>

namespace grid {

namespace {

constexpr std::array<unsigned, 8> bases{2, 3, 5, 7, 11, 13, 17, 19};

// The order of a base's digits. Without it the larger bases march in step. The shuffle is written out because the
// library's may differ from one library to the next.
std::vector<unsigned> digits(unsigned base, uint64_t seed) {
    std::vector<unsigned> order(base);
    std::iota(order.begin(), order.end(), 0U);
    std::mt19937_64 random(seed * 100 + base);
    for (unsigned i = base - 1; i > 0; --i) {
        std::swap(order[i], order[random() % (i + 1)]);
    }
    return order;
}

// Between 0 and 1.
double coordinate(unsigned number, unsigned base, const std::vector<unsigned>& order) {
    double value = 0;
    double weight = 1.0 / base;
    // Further digits are zeros, whose image counts, too.
    for (int i = 0; i < 16; ++i, weight /= base, number /= base) {
        value += order[number % base] * weight;
    }
    return value;
}

duration milliseconds(double value) {
    return duration(std::llround(value * 1e6));
}

path_settings make_path(const double* at, capacities how, uint64_t seed) {
    constexpr double slowest = 0.1;
    constexpr double fastest = 100;
    const double mbit = how == capacities::linear ? slowest + at[0] * (fastest - slowest)
                                                  : slowest * std::pow(fastest / slowest, at[0]);
    return {mbit, milliseconds(at[1] * 400), milliseconds(at[2] * 100), at[3] * 0.025, seed};
}

std::string path_text(const path_settings& path) {
    char text[128];
    std::snprintf(text, sizeof text, "%.2f Mbit/s %.0f ms queue %.0f ms loss %.2f %%", path.mbit,
                  std::chrono::duration<double, std::milli>(path.rtt).count(),
                  std::chrono::duration<double, std::milli>(path.queueing).count(), path.loss * 100);
    return text;
}

}  // namespace

std::string scenario::text() const {
    return "A " + path_text(paths[0]) + " | B " + path_text(paths[1]);
}

scenario make_scenario(unsigned number, uint64_t seed, capacities how) {
    std::array<double, bases.size()> at;
    for (size_t i = 0; i < bases.size(); ++i) {
        at[i] = coordinate(number, bases[i], digits(bases[i], seed));
    }
    const uint64_t own_seed = seed * 1'000'000 + number * 10;
    return {number, {make_path(at.data(), how, own_seed + 1), make_path(at.data() + 4, how, own_seed + 2)}, own_seed};
}

}  // namespace grid
