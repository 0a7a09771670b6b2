/* MessagePack in and out of a packet: a status report (a map of many small entries) and one large binary value. */
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "common/message_variant.h"
#include "common/packet.h"

namespace {

using tandem::packet_t;

constexpr int entries = 16;

void fill_report(packet_t& packet) {
    static const std::vector<std::string> keys = {"a", "bc", "def", "ghij", "klmno", "pqrstu", "vwxyz01", "23456789"};
    packet.pack_string("PATH");
    packet.pack_map_raw(entries);
    for (int i = 0; i < entries; ++i) {
        packet.pack_string(keys[static_cast<size_t>(i) % keys.size()]);
        packet.pack_uint64(uint64_t{1} << (4 * i));
    }
}

void pack_report(benchmark::State& state) {
    for (auto _ : state) {
        packet_t packet(256);
        fill_report(packet);
        benchmark::DoNotOptimize(packet.data());
    }
    state.SetItemsProcessed(state.iterations() * (1 + 2 * entries));
}
BENCHMARK(pack_report);

void unpack_report(benchmark::State& state) {
    packet_t packet(256);
    fill_report(packet);
    for (auto _ : state) {
        auto unpacker = packet.new_unpacker();
        tandem::message_variant_t value;
        int values = 0;
        while (packet.unpack_next(unpacker, value) > 0)
            ++values;
        if (values != 2) state.SkipWithError("the packet holds a text and a map");
    }
    state.SetItemsProcessed(state.iterations() * (1 + 2 * entries));
}
BENCHMARK(unpack_report);

void pack_binary(benchmark::State& state) {
    const std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)), 0x5a);
    for (auto _ : state) {
        packet_t packet(static_cast<uint32_t>(bytes.size()) + 8);
        packet.pack_bin(bytes.data(), static_cast<uint32_t>(bytes.size()));
        benchmark::DoNotOptimize(packet.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(pack_binary)->Arg(1024)->Arg(65536);

}  // namespace
