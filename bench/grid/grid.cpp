// Downloads over two simulated paths, alone and together, in many scenarios: how much of the sum does the pair reach?
#include <CLI/CLI.hpp>
#include <atomic>
#include <exception>
#include <iostream>
#include <mutex>
#include <thread>

#include "bench/grid/result.h"
#include "bench/grid/transfer.h"

namespace grid {

namespace {

struct wishes {
    unsigned scenarios = 256;
    std::vector<unsigned> only;
    unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
    uint64_t seed = 1;
    unsigned rounds = 1;
    double megabytes = 20;
    std::string capacity = "log";
    std::string congestion = "bbr";
    int trace = -1;
    unsigned interval_ms = 250;
    std::string trace_paths = "both";
    bool cells = false;
    bool check = false;
    std::string csv;
};

wishes parse(int argc, char** argv) {
    wishes asked;
    CLI::App app{
        "The aggregation benefit of two paths in virtual time: -1 nothing, 0 the best path alone, 1 the sum.\n"
        "The same seed gives the same figures.",
        "grid"};
    app.add_option("--scenarios", asked.scenarios, "how many, from the first on")->capture_default_str();
    app.add_option("--only", asked.only, "only these numbers")->delimiter(',');
    app.add_option("--jobs", asked.jobs, "threads")->capture_default_str()->check(CLI::PositiveNumber);
    app.add_option("--seed", asked.seed, "of the design and of all losses")->capture_default_str();
    app.add_option("--rounds", asked.rounds, "runs of each transfer, with different losses; the median counts")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--mb", asked.megabytes, "size of a download in megabytes")->capture_default_str();
    app.add_option("--capacity", asked.capacity, "capacities drawn evenly on a scale: log or linear")
        ->capture_default_str()
        ->check(CLI::IsMember({"log", "linear"}));
    app.add_option("--congestion", asked.congestion, "congestion control")->capture_default_str();
    app.add_option("--trace", asked.trace, "print the time line of one scenario instead");
    app.add_option("--every", asked.interval_ms, "milliseconds between the lines of a trace")->capture_default_str();
    app.add_option("--trace-paths", asked.trace_paths, "what to trace")
        ->capture_default_str()
        ->check(CLI::IsMember({"both", "a", "b"}));
    app.add_flag("--cells", asked.cells, "a line for each scenario");
    app.add_option("--csv", asked.csv, "write the cells into this file");
    app.add_flag("--check", asked.check, "fail unless every transfer was complete and intact");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return asked;
}

capacities scale_of(const wishes& asked) {
    return asked.capacity == "log" ? capacities::logarithmic : capacities::linear;
}

transfer_settings settings_of(const wishes& asked, const scenario& of, unsigned round) {
    transfer_settings made;
    made.bytes = static_cast<uint64_t>(asked.megabytes * 1e6);
    made.congestion = asked.congestion;
    made.seed = of.seed + round;
    return made;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

cell run(const wishes& asked, const scenario& of) {
    cell made{.of = of};
    const auto goodput = [&](size_t first, size_t count) {
        std::vector<double> found;
        for (unsigned round = 0; round < asked.rounds; ++round) {
            auto paths = of.paths;
            for (path_settings& path : paths) {
                path.seed += 1'000'000'007ULL * round;
            }
            const outcome out = transfer(std::span(paths).subspan(first, count), settings_of(asked, of, round));
            made.intact = made.intact && out.intact;
            made.complete = made.complete && out.complete;
            found.push_back(out.mbit());
        }
        return median(std::move(found));
    };
    made.a = goodput(0, 1);
    made.b = goodput(1, 1);
    made.both = goodput(0, 2);
    return made;
}

std::vector<cell> run_all(const wishes& asked) {
    std::vector<unsigned> numbers = asked.only;
    if (numbers.empty()) {
        for (unsigned i = 0; i < asked.scenarios; ++i) {
            numbers.push_back(i);
        }
    }
    std::vector<cell> cells(numbers.size());
    std::atomic<size_t> next{0};
    std::mutex printing;
    std::exception_ptr failure;
    const auto work = [&] {
        for (size_t i = next++; i < numbers.size(); i = next++) {
            try {
                cells[i] = run(asked, make_scenario(numbers[i], asked.seed, scale_of(asked)));
            } catch (...) {
                const std::lock_guard lock(printing);
                std::fprintf(stderr, "scenario %u:\n", numbers[i]);
                failure = std::current_exception();
                next = numbers.size();
                return;
            }
            if (asked.cells) {
                const std::lock_guard lock(printing);
                print_cell(stdout, cells[i]);
                std::fflush(stdout);
            }
        }
    };
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < asked.jobs; ++i) {
        workers.emplace_back(work);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    return cells;
}

int trace(const wishes& asked) {
    const scenario of = make_scenario(static_cast<unsigned>(asked.trace), asked.seed, scale_of(asked));
    transfer_settings how = settings_of(asked, of, 0);
    how.trace = stdout;
    how.trace_interval = std::chrono::milliseconds(asked.interval_ms);
    std::printf("scenario %u: %s\n", of.number, of.text().c_str());
    const size_t first = asked.trace_paths == "b" ? 1 : 0;
    const outcome out = transfer(std::span(of.paths).subspan(first, asked.trace_paths == "both" ? 2 : 1), how);
    std::printf("%s: %.3f s, %.3f Mbit/s\n", out.complete ? "complete" : "timed out", out.seconds, out.mbit());
    return 0;
}

int run_program(int argc, char** argv) {
    const wishes asked = parse(argc, argv);
    if (asked.trace >= 0) {
        return trace(asked);
    }
    const std::vector<cell> cells = run_all(asked);
    if (!asked.csv.empty()) {
        if (FILE* out = std::fopen(asked.csv.c_str(), "w")) {
            print_csv(out, cells);
            std::fclose(out);
        }
    }
    std::printf("grid: seed %lu, %s capacities, %.0f MB, %u round(s), %s\n", asked.seed, asked.capacity.c_str(),
                asked.megabytes, asked.rounds, asked.congestion.c_str());
    print_summary(stdout, cells);
    const bool good =
        std::all_of(cells.begin(), cells.end(), [](const cell& one) { return one.intact && one.complete; });
    return asked.check && !good ? 1 : 0;
}

}  // namespace

}  // namespace grid

int main(int argc, char** argv) {
    try {
        return grid::run_program(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "grid: %s\n", error.what());
        return 2;
    }
}
