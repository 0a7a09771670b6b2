#include "tests/core/link.h"

#include <algorithm>

namespace tndm::sim {

namespace {

duration time_for(size_t bytes, double mbit) {
    return duration(static_cast<int64_t>(static_cast<double>(bytes) * 8e3 / mbit));
}

}  // namespace

link::link(const link_settings& settings, uint64_t seed) : settings_(settings), dice_(seed) {
    if (settings_.queue == 0) {
        const double seconds = 2 * std::chrono::duration<double>(settings_.delay).count();
        settings_.queue = std::max<size_t>(30000, static_cast<size_t>(settings_.mbit * 125e3 * seconds));
    }
}

bool link::unlucky() {
    if (settings_.burst <= 1) {
        return dice_.chance(settings_.loss);
    }
    const double leave = 1 / settings_.burst;
    const double enter = settings_.loss * leave / (1 - settings_.loss);
    in_burst_ = in_burst_ ? !dice_.chance(leave) : dice_.chance(enter);
    return in_burst_;
}

std::optional<instant> link::carry(const packet& carried, instant now) {
    const instant start = std::max(now, free_at_);
    bytes_carried_ += carried.size();
    const duration on_wire = time_for(carried.size(), settings_.mbit);
    const bool full = start - now > time_for(settings_.queue, settings_.mbit);
    duration held{0};
    bool taken = dark_ || full || unlucky();
    if (!taken && hand) {
        const auto verdict = hand(carried);
        taken = !verdict;
        held = verdict.value_or(duration{0});
    }
    if (!full) {
        free_at_ = start + on_wire;
    }
    if (taken) {
        return std::nullopt;
    }
    const auto jitter = static_cast<uint64_t>(settings_.jitter.count());
    return start + on_wire + settings_.delay + held + duration(static_cast<int64_t>(dice_.below(jitter + 1)));
}

}  // namespace tndm::sim
