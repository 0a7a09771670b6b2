/* The receiving side of a stream: chunks as a path delivers them in, bytes in order out. */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "platform/tndm/core/receive_stream.h"

namespace {

constexpr uint64_t chunk = 1350;
constexpr uint64_t chunks = 8192;
constexpr uint64_t batch = 44; /* chunks that one wake-up of the receiver brings */

/* The order in which chunks arrive. */
using arrival = std::vector<uint64_t>;

arrival in_order() {
    arrival order(chunks);
    for (uint64_t i = 0; i < chunks; ++i)
        order[i] = i;
    return order;
}

/* Two paths whose delays differ by `lag` chunks share the stream turn about. */
arrival two_paths(uint64_t lag) {
    arrival order = in_order();
    std::stable_sort(order.begin(), order.end(),
                     [lag](uint64_t a, uint64_t b) { return a + (a % 2) * lag < b + (b % 2) * lag; });
    return order;
}

/* Every chunk is up to `window` places early or late. */
arrival shuffled(uint64_t window) {
    std::mt19937_64 random(1);
    std::vector<std::pair<uint64_t, uint64_t>> due;
    for (uint64_t i = 0; i < chunks; ++i)
        due.emplace_back(i + random() % window, i);
    std::sort(due.begin(), due.end());
    arrival order;
    for (const auto& [time, index] : due)
        order.push_back(index);
    return order;
}

void reassemble(benchmark::State& state, const arrival& order) {
    const std::vector<uint8_t> bytes(chunk, 0x5a);
    std::vector<uint8_t> out;
    for (auto _ : state) {
        tndm::core::receive_stream stream(chunk * chunks);
        uint64_t since_take = 0;
        for (const uint64_t index : order) {
            stream.receive(index * chunk, bytes, index + 1 == chunks);
            if (++since_take == batch) {
                stream.take(out);
                since_take = 0;
            }
        }
        stream.take(out);
        if (!stream.done()) state.SkipWithError("bytes are missing");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(chunk * chunks));
}
BENCHMARK_CAPTURE(reassemble, in_order, in_order());
BENCHMARK_CAPTURE(reassemble, two_paths_100_chunks_apart, two_paths(100));
BENCHMARK_CAPTURE(reassemble, two_paths_2000_chunks_apart, two_paths(2000));
BENCHMARK_CAPTURE(reassemble, shuffled_within_64_chunks, shuffled(64));

}  // namespace
