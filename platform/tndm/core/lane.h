// One carrier connection as the bundle sees it: what is under way on it, how far away it is, whether it still answers.
//
//          acknowledgement of anything
//      +------------------------------------+
//      v                                    |
//   active --- nothing heard for `silence` --> suspect --- silent for 5 s, or no room to probe --> wants a fresh
//   carrier
//
// A suspect lane carries nothing but small probes; what it owed goes to the others.
#ifndef TANDEM_PLATFORM_TNDM_CORE_LANE_H
#define TANDEM_PLATFORM_TNDM_CORE_LANE_H

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>

#include "platform/tndm/core/flight.h"
#include "platform/tndm/core/time.h"

namespace tndm::core {

using lane_id = uint32_t;

struct lane_counters {
    uint64_t datagrams_lost = 0;  // declared lost and not acknowledged afterwards
    uint64_t bytes_lost = 0;      // payload of chunks in those
    uint64_t bytes_resent = 0;    // payload of chunks that had been sent before, on whichever lane
};

class lane {
  public:
    lane(lane_id id, instant now) : id_(id), waiting_since_(now), last_sent_(now) {}

    lane_id id() const { return id_; }
    duration rtt() const { return rtt_; }
    duration variation() const { return variation_; }
    // Delivery rate in bytes a second; 0 while unknown.
    uint64_t rate() const { return rate_; }
    // How long a chunk that goes out now is under way: half a round trip, and longer when more is under way than the
    // lane has delivered in a round trip lately.
    duration delivers_in() const;
    // To be used only when no other lane works.
    bool backup() const { return backup_; }
    void set_backup(bool backup) { backup_ = backup; }
    // Nothing may be sent on it yet: its other end has not said that it is there.
    bool awaited() const { return awaited_; }
    void set_awaited(bool awaited) { awaited_ = awaited; }
    bool suspect() const { return suspect_; }
    const lane_counters& counters() const { return counters_; }

    void set_rtt(duration smoothed, duration variation) {
        rtt_ = smoothed;
        variation_ = variation;
    }
    void set_rate(uint64_t bytes_a_second) { rate_ = bytes_a_second; }
    // No answer for this long means that something is wrong: two round trips and four variations, 100 ms at least (a
    // delayed acknowledgement and a busy scheduler must not look like a dead path).
    duration silence() const { return std::max<duration>(2 * rtt_ + 4 * variation_, std::chrono::milliseconds(100)); }
    void set_heartbeat(duration interval) { heartbeat_ = interval; }

    // A datagram went out; the record gets the flight's next id.
    void sent(const transmission& record, instant now);
    // Something was acknowledged: the lane answers.
    void answered(instant now);
    // When a datagram was declared lost: its record waits a quarter of a round trip, in case it is only late.
    void declared_lost(uint64_t id, instant now);

    // A probe should go out now: the lane is suspect, or idle for a heartbeat.
    bool probe_due(instant now) const { return now >= probe_at(); }
    // The carrier had no room even for a probe: it is asked again after a while.
    void probe_refused(instant now) {
        probe_refused_ = suspect_;
        last_try_ = now;
    }
    // A deadline has come.
    void on_time(instant now) { overdue_ = suspect_ && now - waiting_since_ >= overdue_after; }
    // Waiting for this carrier's own back-off takes too long: open another beside it.
    bool wants_fresh_carrier(instant now) const {
        return suspect_ && (probe_refused_ || now - waiting_since_ >= overdue_after);
    }
    // Its window is full of what a dark path has swallowed, so it cannot even ask whether the path is back.
    bool stuck() const { return suspect_ && probe_refused_; }
    // Nothing has been heard since then although something is under way.
    instant waiting_since() const { return waiting_since_; }

    instant silence_at() const { return suspect_ || flight_.outstanding() == 0 ? never : waiting_since_ + silence(); }
    void become_suspect() { suspect_ = true; }
    instant next_deadline() const;

    flight& in_flight() { return flight_; }
    const flight& in_flight() const { return flight_; }
    // Ids declared lost, with the time when each is to be sent again.
    struct late {
        uint64_t id;
        instant due;
    };
    std::deque<late>& late_ones() { return late_; }
    // Records that nobody resolves although younger ones were: the carrier may forget to report a loss.
    instant forgotten_at() const;
    uint64_t highest_acknowledged() const { return highest_acknowledged_; }
    void note_acknowledged(uint64_t id) { highest_acknowledged_ = std::max(highest_acknowledged_, id); }
    lane_counters& counters() { return counters_; }
    // How far this lane has looked through another one's flight for something to copy.
    uint64_t& copied_up_to(lane_id other) { return copied_up_to_[other]; }
    void forget(lane_id other) { copied_up_to_.erase(other); }
    uint64_t copied_up_to(lane_id other) const {
        const auto found = copied_up_to_.find(other);
        return found == copied_up_to_.end() ? 0 : found->second;
    }

  private:
    static constexpr duration overdue_after = std::chrono::seconds(5);

    instant probe_at() const;

    lane_id id_;
    flight flight_;
    std::deque<late> late_;
    duration rtt_ = std::chrono::milliseconds(100);  // until the first sample
    duration variation_ = std::chrono::milliseconds(50);
    uint64_t rate_ = 0;
    bool backup_ = false;
    bool awaited_ = false;
    duration heartbeat_{0};  // 0: none
    bool suspect_ = false;
    bool probe_refused_ = false;
    bool overdue_ = false;  // silent for `overdue_after`, and the driver has had the chance to see it
    instant waiting_since_;
    instant last_sent_;
    instant last_try_{};  // of a probe that was refused
    uint64_t highest_acknowledged_ = 0;
    std::map<lane_id, uint64_t> copied_up_to_;
    lane_counters counters_;
};

}  // namespace tndm::core

#endif
