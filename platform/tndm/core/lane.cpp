#include "platform/tndm/core/lane.h"

namespace tndm::core {

void lane::sent(const transmission& record, instant now) {
    if (flight_.outstanding() == 0 && !suspect_) {
        waiting_since_ = now;
    }
    flight_.add(record);
    last_sent_ = now;
}

duration lane::delivers_in() const {
    constexpr double full_datagram = 1400;
    duration queued{0};
    if (rate_ != 0) {
        const double bytes = static_cast<double>(flight_.outstanding()) * full_datagram;
        const std::chrono::duration<double> drain(std::min(bytes / static_cast<double>(rate_), 1e3));
        queued = std::clamp<duration>(std::chrono::duration_cast<duration>(drain) - rtt_, duration::zero(), rtt_);
    }
    return rtt_ / 2 + queued;
}

void lane::answered(instant now) {
    waiting_since_ = now;
    suspect_ = false;
    probe_refused_ = false;
    overdue_ = false;
}

void lane::declared_lost(uint64_t id, instant now) {
    late_.push_back({id, now + rtt_ / 4});
}

instant lane::probe_at() const {
    if (suspect_) {
        return std::max(last_sent_, last_try_) + std::max<duration>(std::chrono::milliseconds(100), silence() / 8);
    }
    return heartbeat_ > duration::zero() && flight_.outstanding() == 0 ? std::max(last_sent_, last_try_) + heartbeat_
                                                                       : never;
}

instant lane::forgotten_at() const {
    if (suspect_ || flight_.empty() || flight_.oldest_id() >= highest_acknowledged_) {
        return never;
    }
    const transmission* oldest = flight_.find(flight_.oldest_id());
    return oldest->sent_at + 4 * silence();
}

instant lane::next_deadline() const {
    instant deadline = std::min({silence_at(), probe_at(), forgotten_at()});
    if (!late_.empty()) {
        deadline = std::min(deadline, late_.front().due);
    }
    if (suspect_ && !overdue_) {
        deadline = std::min(deadline, waiting_since_ + overdue_after);
    }
    return deadline;
}

}  // namespace tndm::core
