#include "bench/rig/pipe.h"

#include <algorithm>
#include <cmath>

namespace rig {

slot* slot_pool::take() {
    constexpr size_t slab = 256;
    if (free_.empty()) {
        slabs_.push_back(std::make_unique<slot[]>(slab));
        for (size_t i = 0; i < slab; ++i)
            free_.push_back(&slabs_.back()[i]);
    }
    slot* taken = free_.back();
    free_.pop_back();
    return taken;
}

nanoseconds pipe::transmission_time(size_t bytes) const {
    if (settings_.bits_per_second == 0) return nanoseconds(0);
    return nanoseconds(static_cast<int64_t>(bytes * 8 * 1'000'000'000 / settings_.bits_per_second));
}

void pipe::set(const settings& wanted, nanoseconds now) {
    transmit(now);
    const uint64_t old_rate = settings_.bits_per_second;
    settings_ = wanted;
    if (queue_.empty() || old_rate == wanted.bits_per_second) return;
    // The rest of the packet that is being sent leaves at the new rate.
    const uint64_t new_rate = wanted.bits_per_second;
    if (new_rate == 0) {
        head_leaves_ = now;
    } else {
        const auto rest = static_cast<double>((head_leaves_ - now).count());
        head_leaves_ =
            now + nanoseconds(std::llround(rest * static_cast<double>(old_rate) / static_cast<double>(new_rate)));
    }
}

void pipe::offer(slot* data, size_t bytes, nanoseconds now) {
    transmit(now);
    ++counters_.in_packets;
    counters_.in_bytes += bytes;
    // A queue shorter than one packet still has room for the one that is being sent.
    if (!queue_.empty() && queued_bytes_ + bytes > settings_.queue_bytes) {
        ++counters_.dropped;
        pool_->give_back(data);
        return;
    }
    if (queue_.empty()) head_leaves_ = std::max(head_leaves_, now) + transmission_time(bytes);
    queue_.push_back({data, bytes, nanoseconds(0)});
    queued_bytes_ += bytes;
    counters_.most_queued = std::max(counters_.most_queued, queued_bytes_);
}

void pipe::transmit(nanoseconds now) {
    while (!queue_.empty() && head_leaves_ <= now) {
        packet sent = queue_.front();
        queue_.pop_front();
        queued_bytes_ -= sent.bytes;
        // Drawn for dark packets too, so that a blackout does not shift the losses behind it.
        const bool lost = settings_.loss > 0 && std::ldexp(static_cast<double>(random_() >> 11), -53) < settings_.loss;
        if (lost || settings_.dark) {
            ++(settings_.dark ? counters_.darkened : counters_.lost);
            pool_->give_back(sent.data);
        } else {
            // A delay that became shorter does not reorder.
            sent.due = head_leaves_ + settings_.delay;
            if (!wire_.empty()) sent.due = std::max(sent.due, wire_.back().due);
            wire_.push_back(sent);
        }
        if (!queue_.empty()) head_leaves_ += transmission_time(queue_.front().bytes);
    }
}

std::optional<pipe::packet> pipe::arrived(nanoseconds now) {
    transmit(now);
    if (wire_.empty() || wire_.front().due > now) return std::nullopt;
    const packet first = wire_.front();
    wire_.pop_front();
    ++counters_.out_packets;
    counters_.out_bytes += first.bytes;
    return first;
}

std::optional<nanoseconds> pipe::next_arrival() const {
    if (!wire_.empty()) return wire_.front().due;
    if (!queue_.empty()) return head_leaves_ + settings_.delay;
    return std::nullopt;
}

}  // namespace rig
