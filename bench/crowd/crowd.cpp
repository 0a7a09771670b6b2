/* Very many TCP connections from one process to another, directly or through a tunnel.
 *
 *   crowd serve       prints its port; a connection that sends 'i' gets each of its bytes back, one that sends 'b' gets
 *                     zeros for as long as it reads
 *   crowd call PORT   reads commands, one a line, and answers each with one JSON object a line:
 *                       idle COUNT             opens so many and keeps them; each has echoed one byte
 *                       ping COUNT             one byte over so many of those, there and back
 *                       busy COUNT SECONDS     opens so many that download, measures once all have got something, ends
 * them
 */
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "bench/crowd/caller.h"
#include "bench/crowd/server.h"

namespace {

void obey(bench::caller& calls, const std::string& line) {
    unsigned count = 0;
    double seconds = 0;
    if (std::sscanf(line.c_str(), "idle %u", &count) == 1) {
        std::printf("{\"seconds\": %.3f}\n", calls.open_idle(count));
    } else if (std::sscanf(line.c_str(), "ping %u", &count) == 1) {
        std::printf("{\"seconds\": %.3f}\n", calls.ping(count));
    } else if (std::sscanf(line.c_str(), "busy %u %lf", &count, &seconds) == 2 && count > 0 && seconds > 0) {
        const auto result = calls.download(count, seconds);
        std::printf("{\"mbit\": %.1f, \"least_kib\": %.1f, \"most_kib\": %.1f, \"started\": %.3f}\n", result.mbit,
                    result.least_kib, result.most_kib, result.started);
    } else {
        throw std::runtime_error("neither idle COUNT, ping COUNT nor busy COUNT SECONDS: " + line);
    }
    std::fflush(stdout);
}

void run(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    bench::raise_descriptor_limit();
    if (mode == "serve" && argc == 2) bench::serve_crowd();
    if (mode != "call" || argc != 3) throw std::runtime_error("usage: crowd serve | crowd call PORT");
    bench::caller calls(static_cast<uint16_t>(std::stoul(argv[2])));
    char line[128];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        obey(calls, line);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "crowd: %s\n", error.what());
        return 1;
    }
}
