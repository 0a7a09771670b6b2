#include "bench/grid/result.h"

#include <algorithm>
#include <cmath>

namespace grid {

namespace {

constexpr double wanted_share = 0.95;  // of scenarios with a benefit above 0
constexpr double most_loss = 0.05;     // against the best path alone

double quantile(const std::vector<cell>& sorted, double at) {
    const double place = at * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<size_t>(place);
    const size_t above = std::min(below + 1, sorted.size() - 1);
    const double part = place - static_cast<double>(below);
    return sorted[below].benefit() * (1 - part) + sorted[above].benefit() * part;
}

double share(size_t count, const std::vector<cell>& all) {
    return 100.0 * static_cast<double>(count) / static_cast<double>(all.size());
}

const char* verdict(bool met) {
    return met ? "met" : "MISSED";
}

}  // namespace

double cell::benefit() const {
    const double worse = a + b - best();
    return both >= best() ? (worse > 0 ? (both - best()) / worse : 0) : (both - best()) / best();
}

void print_cell(FILE* out, const cell& one) {
    std::fprintf(out, "%4u benefit %6.3f  alone %7.3f and %7.3f, both %7.3f Mbit/s  %s  seed %lu%s%s\n", one.of.number,
                 one.benefit(), one.a, one.b, one.both, one.of.text().c_str(), one.of.seed,
                 one.complete ? "" : "  TIMED OUT", one.intact ? "" : "  WRONG BYTES");
}

void print_csv(FILE* out, const std::vector<cell>& all) {
    std::fputs(
        "scenario,mbit_a,rtt_ms_a,queue_ms_a,loss_a,mbit_b,rtt_ms_b,queue_ms_b,loss_b,goodput_a,goodput_b,"
        "goodput_both,benefit\n",
        out);
    for (const cell& one : all) {
        std::fprintf(out, "%u", one.of.number);
        for (const path_settings& path : one.of.paths) {
            std::fprintf(out, ",%.4f,%.3f,%.3f,%.5f", path.mbit, static_cast<double>(path.rtt.count()) * 1e-6,
                         static_cast<double>(path.queueing.count()) * 1e-6, path.loss);
        }
        std::fprintf(out, ",%.4f,%.4f,%.4f,%.4f\n", one.a, one.b, one.both, one.benefit());
    }
}

void print_summary(FILE* out, std::vector<cell> all) {
    if (all.empty()) {
        return;
    }
    std::sort(all.begin(), all.end(), [](const cell& x, const cell& y) { return x.benefit() < y.benefit(); });
    const auto count = [&](auto&& which) { return static_cast<size_t>(std::count_if(all.begin(), all.end(), which)); };
    const size_t positive = count([](const cell& one) { return one.benefit() > 0; });
    const size_t slower = count([](const cell& one) { return one.ratio() < 1 - most_loss; });
    const size_t wrong = count([](const cell& one) { return !one.intact; });
    const size_t timed_out = count([](const cell& one) { return !one.complete; });
    std::fprintf(out, "scenarios                          %zu (%zu timed out, %zu with wrong bytes)\n", all.size(),
                 timed_out, wrong);
    std::fprintf(out, "aggregation benefit                median %.3f, quartiles %.3f and %.3f, worst %.3f\n",
                 quantile(all, 0.5), quantile(all, 0.25), quantile(all, 0.75), all.front().benefit());
    std::fprintf(out, "benefit above 0                    %.1f %% of scenarios; target %.0f %%: %s\n",
                 share(positive, all), wanted_share * 100,
                 verdict(static_cast<double>(positive) >= wanted_share * static_cast<double>(all.size())));
    std::fprintf(out, "over %.0f %% slower than best alone    %zu (%.1f %%); target none: %s\n", most_loss * 100,
                 slower, share(slower, all), verdict(slower == 0));
    std::fputs("the worst:\n", out);
    for (size_t i = 0; i < std::min<size_t>(all.size(), 10); ++i) {
        print_cell(out, all[i]);
    }
}

}  // namespace grid
