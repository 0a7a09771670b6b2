#include "tests/core/carrier.h"

#include <algorithm>
#include <utility>

namespace tndm::sim {

using namespace std::chrono_literals;

namespace {

constexpr duration max_ack_delay = 25ms;
constexpr uint64_t reordering_packets = 3;
constexpr size_t ranges_told = 32;
constexpr size_t ranges_kept = 256;
constexpr size_t given_up_kept = 256;

}  // namespace

carrier::carrier(uint32_t connection, core::bundle& owner, core::lane_id lane, const carrier_settings& settings,
                 std::function<void(packet&&)> transmit, uint64_t seed)
    : connection_(connection),
      owner_(owner),
      lane_(lane),
      settings_(settings),
      transmit_(std::move(transmit)),
      dice_(seed),
      window_(10 * full_packet()) {}

// --- sending ---

void carrier::pull(instant now) {
    while (const core::lane* lane = owner_.find_lane(lane_)) {
        // Four packets are kept free for the probes of a lane that has fallen silent.
        const size_t reserve = lane->suspect() ? 0 : std::min(4 * full_packet(), window() / 4);
        const size_t needed = lane->suspect() ? packet{}.size() + 1 : full_packet();
        if (bytes_in_flight_ + reserve + needed > window()) {
            if (lane->probe_due(now)) {
                owner_.probe_refused(lane_, now);
            }
            return;
        }
        const bool expected = owner_.has_more(lane_);
        const auto datagram = owner_.next(lane_, settings_.payload, now);
        if (!datagram) {
            return;
        }
        if (!expected && datagram->record.what != core::content::probe && datagram->from_line && !datagram->overdue) {
            complaint_ = "something to send that has_more() did not know of";
            return;
        }
        if (datagram->size() > settings_.payload || datagram->size() == 0) {
            complaint_ = "a datagram of " + std::to_string(datagram->size()) + " bytes";
            return;
        }
        if (datagram->record.what == core::content::chunk && datagram->record.part.empty()) {
            complaint_ = "a chunk of nothing";
            return;
        }
        send_datagram(*datagram, now);
    }
}

void carrier::ping(instant now) {
    send(nullptr, now);
}

void carrier::send_datagram(const core::outgoing& datagram, instant now) {
    send(&datagram, now);
    owner_.sent(lane_, datagram, now);
}

// An eliciting packet: with a datagram, or with nothing but a ping.
void carrier::send(const core::outgoing* datagram, instant now) {
    packet made;
    made.connection = connection_;
    made.number = next_number_++;
    made.eliciting = true;
    std::optional<uint64_t> id;
    if (datagram != nullptr) {
        id = owner_.next_id(lane_);
        made.datagram.assign(datagram->head.bytes().begin(), datagram->head.bytes().end());
        for (size_t i = 0; i < datagram->body.count; ++i) {
            const auto& part = datagram->body.parts[i];
            made.datagram.insert(made.datagram.end(), part.begin(), part.end());
        }
        if (made.datagram.size() != datagram->size()) {
            complaint_ = "pieces that do not add up";
        }
    }
    const size_t size = made.size();
    add_acknowledgement(made, now);
    in_flight_.emplace(made.number, sent_packet{id, size, now});
    bytes_in_flight_ += size;
    last_eliciting_ = now;
    transmit_(std::move(made));
}

// --- receiving ---

void carrier::received(const packet& arrived, instant now) {
    if (arrived.eliciting && !note_arrival(arrived.number, now)) {
        return;
    }
    if (!arrived.acked.empty()) {
        on_acknowledgement(arrived, now);
    }
    if (!arrived.datagram.empty()) {
        owner_.received(arrived.datagram, now);
    }
}

// False for a duplicate.
bool carrier::note_arrival(uint64_t number, instant now) {
    if (number < floor_ || arrived_.contains(number)) {
        return false;
    }
    const bool in_order = number == expected_;
    arrived_.add({number, number + 1});
    if (arrived_.count() > ranges_kept) {
        floor_ = arrived_.end_of_run(arrived_.front().begin);
        arrived_.drop_below(floor_);
    }
    if (number >= expected_) {
        expected_ = number + 1;
        newest_at_ = now;
    }
    ++unacknowledged_;
    ack_at_ = unacknowledged_ >= 2 || !in_order ? now : std::min(ack_at_, now + max_ack_delay);
    return true;
}

void carrier::add_acknowledgement(packet& to, instant now) {
    if (unacknowledged_ == 0) {
        return;
    }
    // What lies between the holes, the newest first.
    const auto holes = arrived_.missing_from({floor_, expected_});
    uint64_t end = expected_;
    for (auto hole = holes.rbegin(); hole != holes.rend() && to.acked.size() < ranges_told; ++hole) {
        to.acked.push_back({hole->end, end});
        end = hole->begin;
    }
    if (end > floor_ && to.acked.size() < ranges_told) {
        to.acked.push_back({floor_, end});
    }
    to.ack_delay = now - newest_at_;
    unacknowledged_ = 0;
    ack_at_ = core::never;
}

// --- acknowledgements and losses ---

void carrier::on_acknowledgement(const packet& arrived, instant now) {
    const uint64_t largest = arrived.acked.front().end - 1;
    if (const auto found = in_flight_.find(largest); found != in_flight_.end()) {
        sample_round_trip(now - found->second.at, arrived.ack_delay);
    }
    bool news = false;
    for (const core::range& part : arrived.acked) {
        for (auto* packets : {&in_flight_, &given_up_}) {
            for (auto at = packets->lower_bound(part.begin); at != packets->end() && at->first < part.end;) {
                if (packets == &in_flight_) {
                    on_acknowledged(at, now);
                }
                if (at->second.id) {
                    owner_.acknowledged(lane_, *at->second.id, now);
                }
                at = packets->erase(at);
                news = true;
            }
        }
    }
    if (news) {
        probes_ = 0;
        largest_acked_ = std::max(largest_acked_.value_or(0), largest);
        detect_losses(now);
    }
}

void carrier::on_acknowledged(sent_packets::iterator found, instant) {
    const size_t size = found->second.size;
    const bool used = bytes_in_flight_ * 2 >= window_;
    bytes_in_flight_ -= size;
    if (!used || found->second.at <= recovery_began_) {
        return;
    }
    window_ += window_ < slow_start_until_ ? size : full_packet() * size / window_;
}

void carrier::sample_round_trip(duration sample, duration ack_delay) {
    latest_ = sample;
    shortest_ = std::min(shortest_, sample);
    const duration adjusted = sample - ack_delay >= shortest_ ? sample - ack_delay : sample;
    if (!std::exchange(sampled_, true)) {
        round_trip_ = sample;
        variation_ = sample / 2;
    } else {
        variation_ = (3 * variation_ + std::chrono::abs(round_trip_ - adjusted)) / 4;
        round_trip_ = (7 * round_trip_ + adjusted) / 8;
    }
    owner_.set_rtt(lane_, round_trip_, variation_);
    const std::chrono::duration<double> turn = round_trip_;
    owner_.set_rate(lane_, static_cast<uint64_t>(static_cast<double>(window()) / turn.count()));
}

void carrier::detect_losses(instant now) {
    loss_at_ = core::never;
    const duration patience = std::max<duration>(std::max(round_trip_, latest_) * 9 / 8, 1ms);
    for (auto at = in_flight_.begin(); at != in_flight_.end() && at->first < largest_acked_.value_or(0);) {
        if (at->first + reordering_packets <= *largest_acked_ || at->second.at + patience <= now) {
            const auto gone = in_flight_.extract(at++);
            declare_lost(gone.key(), gone.mapped(), now);
        } else {
            loss_at_ = std::min(loss_at_, at->second.at + patience);
            ++at;
        }
    }
}

void carrier::declare_lost(uint64_t number, const sent_packet& gone, instant now) {
    bytes_in_flight_ -= gone.size;
    if (gone.at > recovery_began_) {
        recovery_began_ = now;
        window_ = std::max(window_ / 2, 8 * full_packet());
        slow_start_until_ = window_;
    }
    if (!gone.id || dice_.chance(settings_.forgets)) {
        return;
    }
    given_up_.emplace(number, gone);
    if (given_up_.size() > given_up_kept) {
        given_up_.erase(given_up_.begin());
    }
    owner_.lost(lane_, *gone.id, now);
}

// --- time ---

instant carrier::probe_at() const {
    if (in_flight_.empty() || !settings_.probes_tails) {
        return core::never;
    }
    return last_eliciting_ +
           (round_trip_ + std::max<duration>(4 * variation_, 1ms) + max_ack_delay) * (1 << std::min(probes_, 16U));
}

instant carrier::next_deadline() const {
    return std::min({ack_at_, loss_at_, probe_at()});
}

void carrier::on_time(instant now) {
    if (now >= loss_at_) {
        detect_losses(now);
    }
    if (now >= probe_at()) {
        ++probes_;
        for (int i = 0; i < 2; ++i) {
            if (const auto copy = owner_.probe_copy(lane_, settings_.payload)) {
                send_datagram(*copy, now);
            } else {
                ping(now);
            }
        }
    }
    if (now >= ack_at_) {
        packet answer;
        answer.connection = connection_;
        add_acknowledgement(answer, now);
        transmit_(std::move(answer));
    }
}

}  // namespace tndm::sim
