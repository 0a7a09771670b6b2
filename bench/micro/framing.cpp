/* Cutting a stream into packets: frames of one size arrive in pieces of another. */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "common/packet.h"
#include "common/varint.h"

namespace {

constexpr size_t stream_bytes = 1 << 20;

/* Returns about stream_bytes of frames and how many there are. */
std::pair<std::vector<uint8_t>, int64_t> make_stream(size_t body) {
    std::vector<uint8_t> stream;
    int64_t frames = 0;
    while (stream.size() < stream_bytes) {
        uint8_t header[8];
        const int length = t_varint_encode(header, sizeof header, body);
        stream.insert(stream.end(), header, header + length);
        stream.insert(stream.end(), body, 0x5a);
        ++frames;
    }
    return {std::move(stream), frames};
}

void check_and_push(benchmark::State& state) {
    const auto [stream, frames] = make_stream(static_cast<size_t>(state.range(0)));
    const auto piece = static_cast<size_t>(state.range(1));
    for (auto _ : state) {
        int64_t complete = 0;
        auto packet = std::make_shared<tandem::packet_t>(0);
        for (size_t at = 0; at < stream.size(); at += piece) {
            const uint8_t* data = stream.data() + at;
            auto left = static_cast<uint32_t>(std::min(piece, stream.size() - at));
            while (left > 0) {
                uint32_t consumed = 0;
                if (packet->check_and_push(data, left, consumed) != 0) {
                    ++complete;
                    packet = std::make_shared<tandem::packet_t>(0);
                }
                data += consumed;
                left -= consumed;
            }
        }
        if (complete != frames) state.SkipWithError("a frame is missing");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.size()));
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(check_and_push)
    ->ArgNames({"frame", "piece"})
    ->Args({64, 1350})
    ->Args({1350, 1350})
    ->Args({65536, 1350})
    ->Args({65536, 65536});

}  // namespace
