#include "platform/tndm/core/range_set.h"

#include <algorithm>
#include <iterator>

namespace tndm::core {

void range_set::add(range added) {
    if (added.empty()) {
        return;
    }
    auto next = ranges_.upper_bound(added.begin);
    if (next != ranges_.begin()) {
        auto previous = std::prev(next);
        if (previous->second >= added.begin) {
            if (previous->second >= added.end) {
                return;
            }
            // The usual case, bytes in order, only moves one end.
            if (next == ranges_.end() || next->first > added.end) {
                previous->second = added.end;
                return;
            }
            added.begin = previous->first;
            next = ranges_.erase(previous);
        }
    }
    while (next != ranges_.end() && next->first <= added.end) {
        added.end = std::max(added.end, next->second);
        next = ranges_.erase(next);
    }
    ranges_.emplace_hint(next, added.begin, added.end);
}

uint64_t range_set::bytes(size_t most) const {
    uint64_t sum = 0;
    for (auto at = ranges_.begin(); at != ranges_.end() && most > 0; ++at, --most) {
        sum += at->second - at->first;
    }
    return sum;
}

void range_set::subtract(range removed) {
    if (removed.empty() || ranges_.empty()) {
        return;
    }
    auto at = ranges_.upper_bound(removed.begin);
    if (at != ranges_.begin()) {
        auto previous = std::prev(at);
        const uint64_t end = previous->second;
        if (end > removed.begin) {
            if (previous->first < removed.begin) {
                previous->second = removed.begin;
            } else {
                ranges_.erase(previous);
            }
            if (end > removed.end) {
                ranges_.emplace(removed.end, end);
                return;
            }
        }
    }
    while (at != ranges_.end() && at->first < removed.end) {
        const uint64_t end = at->second;
        at = ranges_.erase(at);
        if (end > removed.end) {
            ranges_.emplace(removed.end, end);
            return;
        }
    }
}

void range_set::drop_below(uint64_t offset) {
    while (!ranges_.empty() && ranges_.begin()->first < offset) {
        const uint64_t end = ranges_.begin()->second;
        ranges_.erase(ranges_.begin());
        if (end > offset) {
            ranges_.emplace(offset, end);
            return;
        }
    }
}

bool range_set::contains(uint64_t offset) const {
    return end_of_run(offset) > offset;
}

std::vector<range> range_set::missing_from(range whole) const {
    std::vector<range> missing;
    auto at = ranges_.upper_bound(whole.begin);
    if (at != ranges_.begin()) {
        whole.begin = std::max(whole.begin, std::prev(at)->second);
    }
    for (; at != ranges_.end() && at->first < whole.end; ++at) {
        if (at->first > whole.begin) {
            missing.push_back({whole.begin, at->first});
        }
        whole.begin = at->second;
    }
    if (!whole.empty()) {
        missing.push_back(whole);
    }
    return missing;
}

uint64_t range_set::end_of_run(uint64_t offset) const {
    auto at = ranges_.upper_bound(offset);
    if (at == ranges_.begin()) {
        return offset;
    }
    return std::max(offset, std::prev(at)->second);
}

}  // namespace tndm::core
