// What a subflow puts on the wire, and when.
//
// flush() writes packets into a batch until nothing is due or the congestion window or the pacer stops it. One packet
// is, in this order:
//   1. the control stream's bytes, alone: no chunk shares a packet with a stream frame, whose retransmission would hide
//   the chunk's loss;
//   2. a probe that a timeout asked for: an anchor with a copy of the oldest chunk;
//   3. what the bundle has for this lane, while a reserve of the congestion window stays free;
//   4. when the bundle has nothing: whatever the library wants to say, which also tells it that the application is
//   idle.
//
// Anchors. The library does not arm its probe timeout for packets with only a datagram: a lost tail would never be
// noticed. A packet that raises the peer's credit for unidirectional streams (which nobody opens) is worth probing for,
// costs five bytes and needs no state. One stands in the last packet of every batch.
#include <algorithm>

#include "platform/tndm/quic/subflow.h"

namespace tndm {

namespace {

// In front of a datagram frame's payload at most: short header, 4-byte packet number, frame type and length; behind it
// the AEAD tag.
constexpr size_t packet_overhead = 1 + 4 + 3 + 16;
// Room that chunks leave in a packet for an anchor and for acknowledgements: a packet filled to the brim pushes each of
// them into a packet of its own.
constexpr size_t anchor_room = 5;
constexpr size_t acknowledgement_room = 20;
constexpr size_t smallest_payload = 1200;
constexpr size_t largest_packet = 1452;
// Windows below this are filled to the brim (see chunk_room).
constexpr uint64_t small_window = 128 * largest_packet;
// Windows below this are paced by ourselves (see bound_pace): whatever a line of less than a gigabit or so needs.
constexpr uint64_t paced_window = 1024 * largest_packet;
// How many windows may leave in a round trip at the most.
constexpr double windows_a_round = 2;
// A wake-up that comes late is made up for, as far as this.
constexpr core::duration late_credit = std::chrono::milliseconds(4);

ngtcp2_tstamp stamp(core::instant now) {
    return static_cast<ngtcp2_tstamp>(now.time_since_epoch().count());
}

ngtcp2_vec vector_of(std::span<const uint8_t> bytes) {
    return {const_cast<uint8_t*>(bytes.data()), bytes.size()};
}

}  // namespace

void subflow::flush(core::instant now, std::span<uint8_t> buffer, const batch_sink& sink) {
    if (ended_) {
        return;
    }
    now_ = now;
    if (bundle_ != nullptr) {
        const ngtcp2_conn_stat stat = statistics();
        window_ = stat.cwnd;
        bound_pace(stat);
        if (stat.first_rtt_sample_ts != UINT64_MAX) {
            bundle_->set_rtt(lane_, core::duration(stat.smoothed_rtt), core::duration(stat.rttvar));
            bundle_->set_rate(lane_, stat.delivery_rate_sec);
        }
    }
    held_back_ = false;
    for (bool more = true; more && !ended_;) {
        more = write_batch(now, buffer, sink);
        ngtcp2_conn_update_pkt_tx_time(connection_, stamp(now));
    }
    update_deadline();
    if (held_back_ && !ended_) {
        deadline_ = deadline_ > now ? std::min(deadline_, pace_until_) : pace_until_;
    }
}

// The library's pacing alone does not keep a window from leaving in one burst, which a short queue drowns: until it has
// filled the pipe it counts with a round trip of a millisecond, and afterwards each acknowledgement lets go what waits.
// The largest windows are left to the library: on lines that fast a late wake-up costs more than a burst.
void subflow::bound_pace(const ngtcp2_conn_stat& stat) {
    const bool known = stat.cwnd < paced_window && handshake_completed_ && stat.first_rtt_sample_ts != UINT64_MAX &&
                       stat.smoothed_rtt > 0;
    pace_ = known ? windows_a_round * static_cast<double>(stat.cwnd) / static_cast<double>(stat.smoothed_rtt) : 0;
}

// Writes up to one send quantum and hands it over in runs of equal-sized packets. True when there may be more to send,
// pacing permitting.
bool subflow::write_batch(core::instant now, std::span<uint8_t> buffer, const batch_sink& sink) {
    size_t quantum = std::max<size_t>(ngtcp2_conn_get_send_quantum(connection_), largest_packet);
    if (pace_ > 0) {
        quantum = std::min(quantum, std::max(2 * largest_packet, static_cast<size_t>(pace_ * NGTCP2_MILLISECONDS)));
    }
    const size_t limit = std::min(buffer.size(), quantum);
    size_t begin = 0;
    size_t end = 0;
    size_t segment = 0;
    int ecn = 0;
    bool open = true;
    const auto hand_over = [&] {
        if (end > begin) {
            const outgoing_batch batch{buffer.subspan(begin, end - begin), segment, local_, remote_, ecn};
            counters_.packets_sent += (end - begin + segment - 1) / segment;
            counters_.bytes_sent += end - begin;
            open = sink(batch);
        }
        begin = end;
    };
    while (open && end + largest_packet <= buffer.size() && end < limit) {
        const bool last = end + 2 * largest_packet > limit;
        const written packet = write_packet(now, buffer.subspan(end, largest_packet), last);
        if (packet.result != write_result::packet) {
            hand_over();
            return false;
        }
        const bool fits = begin == end || (packet.size <= segment && packet.ecn == ecn && !path_changed_);
        if (!fits) {
            hand_over();
        }
        if (begin == end) {
            segment = packet.size;
            ecn = packet.ecn;
            take_over_path();
        }
        end += packet.size;
        if (packet.size < segment) {
            hand_over();  // a shorter datagram can only be the last of a segmented run
        }
    }
    hand_over();
    if (pace_ > 0) {
        pace_until_ = std::max(pace_until_, now - late_credit) +
                      core::duration(static_cast<core::duration::rep>(static_cast<double>(end) / pace_));
    }
    return open;
}

subflow::written subflow::write_packet(core::instant now, std::span<uint8_t> out, bool last_of_batch) {
    if (handshake_completed_ && stream_ != -1 && stream_next_ < stream_out_.size() && !stream_blocked_) {
        const written packet = write_control_stream(now, out);
        if (!stream_blocked_) {
            return packet;
        }
    }
    if (bundle_ == nullptr || !may_send_) {
        if (bundle_ != nullptr) {
            bundle_->probe_refused(lane_, now);  // a heartbeat that is due must not be asked for without end
        }
        return write_idle(now, out);
    }
    if (probes_due_ > 0) {
        const size_t largest = largest_datagram(true);
        const written packet =
            write_datagram(now, out, bundle_->probe_copy(lane_, largest).value_or(core::bundle::probe()), true);
        if (packet.result == write_result::packet) {
            --probes_due_;
            return packet;
        }
        probes_due_ = 0;
    }
    const core::lane* lane = bundle_->find_lane(lane_);
    const bool suspect = lane != nullptr && lane->suspect();
    held_back_ = !suspect && pace_ > 0 && now < pace_until_;
    if (suspect || (!held_back_ && chunk_room(1))) {
        const bool tail = last_of_batch || !chunk_room(2);
        const size_t largest = largest_datagram(tail);
        if (const auto datagram = bundle_->next(lane_, largest, now)) {
            // What does not fill its packet is the last that there is for now, or a probe.
            const bool full = datagram->size() + 64 > largest;
            const written packet = write_datagram(now, out, *datagram, tail || !full);
            if (packet.result == write_result::nothing && datagram->record.what == core::content::probe) {
                bundle_->probe_refused(lane_, now);
            }
            return packet;
        }
    } else if (lane != nullptr && lane->probe_due(now)) {
        bundle_->probe_refused(lane_, now);  // or its deadline would stay in the past until there is room
    }
    if (unanchored_) {
        // The batch ended earlier than it looked: its last packet gets an anchor of its own, for which the reserve has
        // room.
        const written packet = write_datagram(now, out, core::bundle::probe(), true);
        if (packet.result == write_result::packet) {
            return packet;
        }
    }
    return bundle_->has_more(lane_) ? write_acknowledgements(now, out) : write_idle(now, out);
}

// Payload of a datagram that fits this path with a short acknowledgement and, when `anchored`, an anchor beside it:
// full packets have one size either way, so they leave in one segmented run. The library takes a datagram that is too
// large for a window that is full, so this must never be above what fits.
size_t subflow::largest_datagram(bool anchored) const {
    const size_t discovered = ngtcp2_conn_get_path_max_tx_udp_payload_size(connection_);
    size_t payload = discovered;
    if (small_only_) {
        payload = std::min(payload, smallest_payload);
    } else if (discovered <= smallest_payload) {
        payload = std::min(payload, settings_.first_payload);
    }
    return payload - packet_overhead - ngtcp2_conn_get_dcid(connection_)->datalen - acknowledgement_room -
           (anchored ? anchor_room : 0);
}

// Whether the window has room for so many full packets and, behind them, for the probes that a dark path will need: a
// window filled to the brim cannot even ask whether the path has come back.
//
// A small window has no room to spare. The library raises its idea of what the path holds only after the window was
// full; never quite filled, it shrinks with each loss to a few packets a round trip and stays there. After a darkness
// such a path needs a fresh carrier, which the client opens when its own probes find no room, or when the server, which
// hears the client again and cannot answer for the same reason, ends the old one.
bool subflow::chunk_room(size_t packets) const {
    const uint64_t left = ngtcp2_conn_get_cwnd_left(connection_);
    if (window_ < small_window) {
        return left > (packets - 1) * largest_packet;
    }
    return left >= (4 + packets) * largest_packet;
}

subflow::written subflow::write_control_stream(core::instant now, std::span<uint8_t> out) {
    const auto& bytes = stream_out_[stream_next_];
    const ngtcp2_vec rest = vector_of(std::span(bytes).subspan(stream_offset_));
    ngtcp2_ssize taken = -1;
    ngtcp2_pkt_info info{};
    const ngtcp2_ssize result =
        ngtcp2_conn_writev_stream(connection_, &out_path_.path, &info, out.data(), out.size(), &taken,
                                  NGTCP2_WRITE_STREAM_FLAG_NONE, stream_, &rest, 1, stamp(now));
    if (result == NGTCP2_ERR_STREAM_DATA_BLOCKED) {
        stream_blocked_ = true;
        return {write_result::nothing};
    }
    if (result == NGTCP2_ERR_STREAM_SHUT_WR) {
        fail(NGTCP2_ERR_PROTO);
        return {write_result::failed};
    }
    if (taken > 0) {
        stream_offset_ += static_cast<size_t>(taken);
        if (stream_offset_ == bytes.size()) {
            ++stream_next_;
            stream_offset_ = 0;
        }
    }
    return finish_write(result, info);
}

void subflow::raise_anchor() {
    if (!anchor_raised_) {
        ngtcp2_conn_extend_max_streams_uni(connection_, 1);
        anchor_raised_ = true;
    }
}

subflow::written subflow::write_datagram(core::instant now, std::span<uint8_t> out, const core::outgoing& datagram,
                                         bool anchored) {
    if (anchored) {
        raise_anchor();
    }
    std::array<ngtcp2_vec, core::pieces::max_count + 1> parts;
    size_t count = 0;
    parts[count++] = vector_of(datagram.head.bytes());
    for (size_t i = 0; i < datagram.body.count; ++i) {
        parts[count++] = vector_of(datagram.body.parts[i]);
    }
    int accepted = 0;
    ngtcp2_pkt_info info{};
    const uint64_t id = bundle_->next_id(lane_);
    const ngtcp2_ssize result =
        ngtcp2_conn_writev_datagram(connection_, &out_path_.path, &info, out.data(), out.size(), &accepted,
                                    NGTCP2_WRITE_DATAGRAM_FLAG_NONE, id, parts.data(), count, stamp(now));
    if (accepted != 0) {
        unanchored_ = !anchor_raised_;
        bundle_->sent(lane_, datagram, now);
    }
    return finish_write(result, info);
}

// While chunks wait, the library must not be told that the application is idle: a datagram too large for the path
// writes what else is due.
subflow::written subflow::write_acknowledgements(core::instant now, std::span<uint8_t> out) {
    static constexpr std::array<uint8_t, 2 * largest_packet> oversized{};
    const ngtcp2_vec part = vector_of(oversized);
    int accepted = 0;
    ngtcp2_pkt_info info{};
    const ngtcp2_ssize result =
        ngtcp2_conn_writev_datagram(connection_, &out_path_.path, &info, out.data(), out.size(), &accepted,
                                    NGTCP2_WRITE_DATAGRAM_FLAG_NONE, ~uint64_t{0}, &part, 1, stamp(now));
    return finish_write(result, info);
}

subflow::written subflow::write_idle(core::instant now, std::span<uint8_t> out) {
    ngtcp2_pkt_info info{};
    const ngtcp2_ssize result =
        ngtcp2_conn_write_pkt(connection_, &out_path_.path, &info, out.data(), out.size(), stamp(now));
    return finish_write(result, info);
}

subflow::written subflow::finish_write(ngtcp2_ssize result, const ngtcp2_pkt_info& info) {
    if (result < 0) {
        fail(static_cast<int>(result));
        return {write_result::failed};
    }
    if (result == 0) {
        return {write_result::nothing};
    }
    anchor_raised_ = false;
    const endpoint local(out_path_.path.local.addr, out_path_.path.local.addrlen);
    const endpoint remote(out_path_.path.remote.addr, out_path_.path.remote.addrlen);
    path_changed_ = !(local == local_ && remote == remote_);
    return {write_result::packet, static_cast<size_t>(result), static_cast<int>(info.ecn)};
}

// The library may move a connection to the peer's new address, or probe one: packets leave for where it says.
void subflow::take_over_path() {
    if (path_changed_) {
        local_ = endpoint(out_path_.path.local.addr, out_path_.path.local.addrlen);
        remote_ = endpoint(out_path_.path.remote.addr, out_path_.path.remote.addrlen);
        path_changed_ = false;
    }
}

}  // namespace tndm
