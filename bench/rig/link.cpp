#include "bench/rig/link.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace rig {

namespace {

constexpr size_t batch_packets = 64;

std::string field(const char* name, uint64_t value) {
    return '"' + std::string(name) + "\": " + std::to_string(value);
}

}  // namespace

nanoseconds clock_now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

link::link(slot_pool& pool, tun near_end, tun far_end)
    : pool_(&pool), ends_{std::move(near_end), std::move(far_end)}, pipes_{pipe(pool), pipe(pool)} {}

bool link::collect(side from) {
    const nanoseconds now = clock_now();
    for (size_t count = 0; count < batch_packets; ++count) {
        slot* data = pool_->take();
        const size_t bytes = ends_[from].read(data->data(), data->size());
        if (bytes == 0) {
            pool_->give_back(data);
            return true;
        }
        pipes_[from == near ? up : down].offer(data, bytes, now);
    }
    return false;
}

void link::deliver(nanoseconds now) {
    for (const direction which : {up, down}) {
        const tun& target = ends_[which == up ? far : near];
        lateness& late = late_[which];
        while (const auto packet = pipes_[which].arrived(now)) {
            if (!target.write(packet->data->data(), packet->bytes)) ++late.refused;
            pool_->give_back(packet->data);
            const nanoseconds lag = now - packet->due;
            late.most = std::max(late.most, lag);
            if (lag > std::chrono::milliseconds(1)) ++late.packets;
        }
    }
}

std::string link::statistics(direction which) {
    const pipe::counters& counted = pipes_[which].counted();
    lateness& late = late_[which];
    std::string text = "{";
    for (const auto& [name, value] : {std::pair("in_packets", counted.in_packets),
                                      {"in_bytes", counted.in_bytes},
                                      {"out_packets", counted.out_packets},
                                      {"out_bytes", counted.out_bytes},
                                      {"dropped", counted.dropped},
                                      {"lost", counted.lost},
                                      {"dark", counted.darkened},
                                      {"refused", late.refused},
                                      {"queued", pipes_[which].queued_bytes()},
                                      {"most_queued", counted.most_queued},
                                      {"late_packets", late.packets}}) {
        text += field(name, value) + ", ";
    }
    text += field("most_late_us", static_cast<uint64_t>(late.most.count()) / 1000) + "}";
    late.most = nanoseconds(0);
    pipes_[which].forget_most_queued();
    return text;
}

std::string link::statistics() {
    return R"({"up": )" + statistics(up) + R"(, "down": )" + statistics(down) + "}";
}

}  // namespace rig
