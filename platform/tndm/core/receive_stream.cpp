#include "platform/tndm/core/receive_stream.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tndm::core {

namespace {

// A run grows by appending up to here, so that many small chunks behind one hole are one run and not many.
constexpr size_t max_run = 64 * 1024;

}  // namespace

receive_stream::result receive_stream::receive(uint64_t offset, std::span<const uint8_t> bytes, bool last) {
    const uint64_t end = offset + bytes.size();
    if (end > limit_) {
        return result::window_exceeded;
    }
    if ((end_ && (end > *end_ || (last && end != *end_))) || (last && end < highest_)) {
        return result::inconsistent_end;
    }
    if (last) {
        end_ = end;
    }
    highest_ = std::max(highest_, end);
    if (end <= next_) {
        return result::ok;
    }
    if (offset < next_) {
        bytes = bytes.subspan(static_cast<size_t>(next_ - offset));
        offset = next_;
    }
    if (offset == next_) {
        ready_.insert(ready_.end(), bytes.begin(), bytes.end());
        next_ = end;
        join();
    } else {
        store(offset, bytes);
    }
    return result::ok;
}

// Keeps the parts of a chunk that are not there yet.
void receive_stream::store(uint64_t offset, std::span<const uint8_t> bytes) {
    auto after = waiting_.upper_bound(offset);
    while (!bytes.empty()) {
        if (after != waiting_.begin()) {
            auto& [begin, run] = *std::prev(after);
            const uint64_t run_end = begin + run.size();
            if (run_end > offset) {
                const auto known = static_cast<size_t>(std::min<uint64_t>(run_end - offset, bytes.size()));
                bytes = bytes.subspan(known);
                offset += known;
                if (bytes.empty()) {
                    return;
                }
            }
        }
        const uint64_t room = after == waiting_.end() ? bytes.size() : after->first - offset;
        const auto fresh = bytes.first(static_cast<size_t>(std::min<uint64_t>(room, bytes.size())));
        if (!fresh.empty()) {
            const bool touches = after != waiting_.begin() &&
                                 std::prev(after)->first + std::prev(after)->second.size() == offset &&
                                 std::prev(after)->second.size() + fresh.size() <= max_run;
            if (touches) {
                auto& run = std::prev(after)->second;
                run.insert(run.end(), fresh.begin(), fresh.end());
            } else {
                waiting_.emplace_hint(after, offset, std::vector<uint8_t>(fresh.begin(), fresh.end()));
            }
            offset += fresh.size();
            bytes = bytes.subspan(fresh.size());
        }
        if (!bytes.empty()) {
            ++after;
        }
    }
}

// Moves the runs that are in order now behind the ready bytes.
void receive_stream::join() {
    while (!waiting_.empty() && waiting_.begin()->first <= next_) {
        const auto node = waiting_.extract(waiting_.begin());
        const uint64_t known = next_ - node.key();
        if (known < node.mapped().size()) {
            ready_.insert(ready_.end(), node.mapped().begin() + static_cast<ptrdiff_t>(known), node.mapped().end());
            next_ = node.key() + node.mapped().size();
        }
    }
}

bool receive_stream::take(std::vector<uint8_t>& out) {
    out = std::exchange(ready_, {});
    end_taken_ = at_end();
    return end_taken_;
}

}  // namespace tndm::core
