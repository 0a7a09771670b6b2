// A model of the connection beneath a lane: it numbers packets, acknowledges them, declares them lost, probes, and
// holds a congestion window. What it shares with a QUIC connection that carries DATAGRAM frames is what the bundle can
// notice: no retransmission, losses reported only once something younger has arrived, probes that back off.
#ifndef TANDEM_TESTS_CORE_CARRIER_H
#define TANDEM_TESTS_CORE_CARRIER_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/tndm/core/bundle.h"
#include "tests/core/link.h"

namespace tndm::sim {

struct carrier_settings {
    size_t payload = 1200;     // largest datagram
    size_t fixed_window = 0;   // bytes under way, whatever happens; 0: slow start, then halved by losses
    double forgets = 0;        // share of the lost datagrams that are never reported
    bool probes_tails = true;  // false: datagrams do not arm the probe timer
};

class carrier {
  public:
    // Borrows the bundle, which must outlive it. `transmit` gives a packet to the link.
    carrier(uint32_t connection, core::bundle& owner, core::lane_id lane, const carrier_settings& settings,
            std::function<void(packet&&)> transmit, uint64_t seed);

    uint32_t connection() const { return connection_; }

    void received(const packet& arrived, instant now);
    // Sends what the bundle has and the window allows.
    void pull(instant now);
    void on_time(instant now);
    instant next_deadline() const;
    // Makes the peer answer.
    void ping(instant now);

    // The first thing that the bundle did and must not do; empty when there is none.
    const std::string& complaint() const { return complaint_; }

  private:
    struct sent_packet {
        std::optional<uint64_t> id;  // of the datagram in it
        size_t size;
        instant at;
    };
    using sent_packets = std::map<uint64_t, sent_packet>;

    void send(const core::outgoing* datagram, instant now);
    void send_datagram(const core::outgoing& datagram, instant now);
    void add_acknowledgement(packet& to, instant now);
    bool note_arrival(uint64_t number, instant now);
    void on_acknowledgement(const packet& arrived, instant now);
    void on_acknowledged(sent_packets::iterator found, instant now);
    void sample_round_trip(duration sample, duration ack_delay);
    void detect_losses(instant now);
    void declare_lost(uint64_t number, const sent_packet& gone, instant now);
    size_t window() const { return settings_.fixed_window != 0 ? settings_.fixed_window : window_; }
    size_t full_packet() const { return settings_.payload + packet{}.size(); }
    instant probe_at() const;

    uint32_t connection_;
    core::bundle& owner_;
    core::lane_id lane_;
    carrier_settings settings_;
    std::function<void(packet&&)> transmit_;
    dice dice_;
    std::string complaint_;

    // Sending.
    uint64_t next_number_ = 0;
    sent_packets in_flight_;
    sent_packets given_up_;  // declared lost not long ago: an acknowledgement may still come
    size_t bytes_in_flight_ = 0;
    size_t window_;
    size_t slow_start_until_ = SIZE_MAX;
    instant recovery_began_{};
    std::optional<uint64_t> largest_acked_;
    instant last_eliciting_{};
    instant loss_at_ = core::never;
    unsigned probes_ = 0;  // in a row without an answer
    bool sampled_ = false;
    duration round_trip_{std::chrono::milliseconds(333)};
    duration variation_{std::chrono::milliseconds(166)};
    duration latest_{0};
    duration shortest_ = duration::max();

    // Receiving.
    core::range_set arrived_;
    uint64_t floor_ = 0;     // older ones are not told apart any more
    uint64_t expected_ = 0;  // one past the newest
    unsigned unacknowledged_ = 0;
    instant newest_at_{};
    instant ack_at_ = core::never;
};

}  // namespace tndm::sim

#endif
