#include "gateway/attempt_gate.h"

#include <algorithm>

namespace tandem {
namespace {

constexpr int64_t forgive_every_us = 60'000'000;
constexpr unsigned most_failures = 16;

}  // namespace

std::optional<int64_t> attempt_gate_t::begin(const std::string& name, int64_t now_us) {
    source_t& source = find(name, now_us);
    const int64_t wait = std::max<int64_t>(source.next_us - now_us, 0);
    if (source.at_once >= most_at_once || wait > longest_wait_us) return std::nullopt;
    ++source.at_once;
    // The place is taken: who comes at the same time waits for the next one.
    source.next_us = now_us + wait + gap(source.failures);
    return wait;
}

void attempt_gate_t::end(const std::string& name, bool failed, int64_t now_us) {
    source_t& source = find(name, now_us);
    if (source.at_once > 0) --source.at_once;
    if (!failed) return;
    source.failures = std::min(source.failures + 1, most_failures);
    source.next_us = std::max(source.next_us, now_us + gap(source.failures));
}

attempt_gate_t::source_t& attempt_gate_t::find(const std::string& name, int64_t now_us) {
    const auto [found, added] = sources_.try_emplace(name);
    source_t& source = found->second;
    if (added) {
        by_age_.push_front(name);
        source.age = by_age_.begin();
        source.forgiven_us = now_us;
        if (sources_.size() > most_sources) {
            sources_.erase(by_age_.back());
            by_age_.pop_back();
        }
        return source;
    }
    by_age_.splice(by_age_.begin(), by_age_, source.age);
    const int64_t minutes = std::max<int64_t>(now_us - source.forgiven_us, 0) / forgive_every_us;
    source.forgiven_us += minutes * forgive_every_us;
    source.failures -= static_cast<unsigned>(std::min<int64_t>(minutes, source.failures));
    return source;
}

int64_t attempt_gate_t::gap(unsigned failures) {
    if (failures == 0) return 0;
    return std::min(first_gap_us << (failures - 1), longest_gap_us);
}

}  // namespace tandem
