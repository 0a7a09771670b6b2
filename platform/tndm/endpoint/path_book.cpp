#include "platform/tndm/endpoint/path_book.h"

#include <algorithm>

namespace tndm {

namespace {

// A backup lane rests while another one answers.
int32_t state_of(const path_book::lane_figures& lane, std::span<const path_book::lane_figures> live) {
    const bool rests = lane.backup && std::any_of(live.begin(), live.end(),
                                                  [](const auto& other) { return other.answers && !other.backup; });
    return !lane.answers ? TNDM_PATH_DEAD : rests ? TNDM_PATH_IDLE : TNDM_PATH_CONNECTED;
}

}  // namespace

path_book::counters& path_book::counters::operator+=(const counters& more) {
    packets_sent += more.packets_sent;
    packets_received += more.packets_received;
    bytes_sent += more.bytes_sent;
    bytes_received += more.bytes_received;
    packets_lost += more.packets_lost;
    bytes_resent += more.bytes_resent;
    return *this;
}

path_book::entry* path_book::find(std::string_view name) {
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const entry& each) { return each.name == name; });
    return found == entries_.end() ? nullptr : &*found;
}

void path_book::joined(std::string_view name) {
    entry* known = find(name);
    if (known == nullptr) {
        known = &entries_.emplace_back();
        known->name = name;
    }
    ++known->lanes;
}

void path_book::left(const lane_figures& last) {
    entry* known = find(last.name);
    if (known == nullptr) {
        return;
    }
    known->past += last.counted;
    if (--known->lanes == 0) {
        known->idle_since = ++turn_;
        bound_idle();
    }
}

void path_book::bound_idle() {
    size_t idle = 0;
    auto oldest = entries_.end();
    for (auto each = entries_.begin(); each != entries_.end(); ++each) {
        if (each->lanes == 0) {
            ++idle;
            oldest = oldest == entries_.end() || each->idle_since < oldest->idle_since ? each : oldest;
        }
    }
    if (idle > max_idle_names) {
        entries_.erase(oldest);
    }
}

std::vector<st_tndm_path_info_t> path_book::records(std::span<const lane_figures> live,
                                                    const std::vector<wish>* wishes) {
    std::vector<st_tndm_path_info_t> made;
    if (wishes == nullptr) {
        for (entry& each : entries_) {
            made.push_back(record(each.name, &each, live, TNDM_PATH_DEAD));
        }
        return made;
    }
    std::erase_if(entries_, [&](const entry& each) {
        return each.lanes == 0 &&
               std::none_of(wishes->begin(), wishes->end(), [&](const wish& one) { return one.name == each.name; });
    });
    for (const wish& each : *wishes) {
        made.push_back(record(each.name, find(each.name), live, each.state));
    }
    return made;
}

// Rates and windows of the lanes that answer add up, and the nearest of them tells the round trip. Where none answers
// there are only the last known figures of what is still there.
st_tndm_path_info_t path_book::record(std::string_view name, entry* known, std::span<const lane_figures> live,
                                      int32_t otherwise) {
    st_tndm_path_info_t made{};
    name.copy(made.name, sizeof made.name - 1);
    made.state = otherwise;
    counters total = known != nullptr ? known->past : counters{};
    const lane_figures* best = nullptr;
    for (const lane_figures& lane : live) {
        if (lane.name != name) {
            continue;
        }
        total += lane.counted;
        const bool better = best == nullptr || lane.answers > best->answers ||
                            (lane.answers == best->answers && lane.rtt_us < best->rtt_us);
        best = better ? &lane : best;
        if (lane.answers) {
            made.window += lane.window;
            made.delivery_rate += lane.delivery_rate;
            made.pacing_rate += lane.pacing_rate;
        }
    }
    if (best != nullptr) {
        made.state = state_of(*best, live);
        made.rtt = best->rtt_us;
        made.window = best->answers ? made.window : best->window;
    }
    if (known != nullptr) {
        known->most_lost = std::max(known->most_lost, total.packets_lost);
        total.packets_lost = known->most_lost;
    }
    made.packets_sent = total.packets_sent;
    made.packets_received = total.packets_received;
    made.packets_lost = total.packets_lost;
    made.bytes_resent = total.bytes_resent;
    made.bytes_sent = total.bytes_sent;
    made.bytes_received = total.bytes_received;
    return made;
}

}  // namespace tndm
