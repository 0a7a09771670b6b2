#include "platform/tndm/core/send_stream.h"

#include <algorithm>
#include <utility>

namespace tndm::core {

namespace {

// Writes smaller than this are gathered in blocks: a chunk that is made of many crumbs costs more than the copy.
constexpr uint32_t crumb = 512;
constexpr uint32_t block = 2048;

// What follows a chunk will most likely be copied next, and with many streams it has left the caches since it was
// queued: it is fetched while this chunk is being encrypted.
void prefetch(std::span<const uint8_t> bytes, size_t most) {
    constexpr size_t cache_line = 64;
    for (size_t at = 0; at < std::min(bytes.size(), most); at += cache_line) {
        __builtin_prefetch(bytes.data() + at);
    }
}

}  // namespace

void send_stream::queue(buffer&& bytes) {
    if (bytes.size() == 0) {
        return;
    }
    const uint32_t size = bytes.size();
    if (size <= crumb) {
        if (segments_.empty() || segments_.back().bytes.room() < size) {
            segments_.push_back({end_, buffer::with_capacity(block)});
        }
        segments_.back().bytes.append(bytes.bytes());
    } else {
        segments_.push_back({end_, std::move(bytes)});
    }
    end_ += size;
}

uint64_t send_stream::cut_short() {
    if (next_ > end_) {
        return 0;  // the end itself is on its way
    }
    const uint64_t dropped = end_ - next_;
    end_ = next_;
    finished_ = true;
    while (!segments_.empty() && segments_.back().begin >= end_) {
        segments_.pop_back();
    }
    return dropped;
}

bool send_stream::has_fresh(uint64_t room) const {
    return !fresh(1, room).empty();
}

range send_stream::fresh(uint64_t max, uint64_t room) const {
    const uint64_t allowed = limit_ > next_ ? limit_ - next_ : 0;
    range cut{next_, next_ + std::min({max, room, allowed, unsent()})};
    if (finished_ && next_ <= end_ && cut.end == end_) {
        cut.end = end_ + 1;
    }
    return cut;
}

range send_stream::resend(uint64_t max) const {
    range cut = resend_.front();
    // The virtual end byte costs nothing: it rides along when the bytes before it fit.
    const uint64_t last = std::min(cut.end, end_);
    if (last > cut.begin + max) {
        cut.end = cut.begin + max;
    }
    return cut;
}

void send_stream::mark_resent(range sent) {
    resend_.subtract(sent);
}

void send_stream::requeue(range lost, instant now) {
    for (const range& part : acknowledged_.missing_from(lost)) {
        if (part.end <= base_) {
            continue;
        }
        if (resend_.empty()) {
            resend_since_ = now;
        }
        resend_.add({std::max(part.begin, base_), part.end});
    }
}

range send_stream::still_needed(range sent) const {
    sent.begin = std::max(sent.begin, base_);
    if (sent.empty()) {
        return {};
    }
    const auto missing = acknowledged_.missing_from(sent);
    return missing.empty() ? range{} : missing.front();
}

size_t send_stream::find(uint64_t offset) const {
    // New data are near the back and the oldest at the front; a binary search suits both.
    const auto after = std::upper_bound(segments_.begin(), segments_.end(), offset,
                                        [](uint64_t value, const segment& s) { return value < s.begin; });
    return static_cast<size_t>(after - segments_.begin()) - 1;
}

pieces send_stream::gather(range wanted) const {
    pieces found;
    const segment* last = nullptr;
    wanted.end = std::min(wanted.end, end_);
    if (wanted.empty()) {
        return found;
    }
    for (size_t i = find(wanted.begin); i < segments_.size() && found.count < pieces::max_count && !wanted.empty();
         ++i) {
        const segment& from = segments_[i];
        last = &from;
        const auto take = static_cast<size_t>(std::min(from.end(), wanted.end) - wanted.begin);
        found.parts[found.count++] = from.bytes.bytes().subspan(static_cast<size_t>(wanted.begin - from.begin), take);
        found.bytes += take;
        wanted.begin += take;
    }
    if (last != nullptr) {
        prefetch(last->bytes.bytes().subspan(static_cast<size_t>(wanted.begin - last->begin)), found.bytes);
    }
    return found;
}

void send_stream::acknowledge(range arrived) {
    if (!resend_.empty()) {
        resend_.subtract(arrived);
    }
    if (arrived.begin <= base_) {
        base_ = std::max(base_, arrived.end);
        if (!acknowledged_.empty()) {
            base_ = acknowledged_.end_of_run(base_);
            acknowledged_.drop_below(base_);
        }
    } else {
        acknowledged_.add(arrived);
    }
    // A block that still has room for crumbs is kept while it is the last: its bytes go on being appended.
    while (!segments_.empty() && segments_.front().end() <= base_ &&
           (segments_.size() > 1 || segments_.front().bytes.room() == 0)) {
        segments_.pop_front();
    }
}

}  // namespace tndm::core
