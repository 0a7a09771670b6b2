// The bundle: one connection over several lanes.
//
// Bytes, acknowledgements, losses and time go in; datagrams, deliveries and deadlines come out. No socket, no clock, no
// thread: whoever drives it calls from one thread and says what time it is, never backwards.
//
//   inputs    queue, finish, pause          from the application
//             add_lane, remove_lane, set_rtt, received, acknowledged, lost, probe_refused      from the carriers
//             on_time                       when next_deadline() has come
//   outputs   next + sent                   what a lane that has room should send now (pulled by the carrier)
//             take_delivery                 bytes in order for the application
//             take_closed, take_sent        streams that are over; how much of each stream has gone out
//             next_deadline, violation
//
// After any input the carriers should be asked for what they have to send. Nothing here calls anybody back.
//
// Stream ids are laid out as in QUIC: bit 0 says who opened the stream (1: the server), bit 1 that only the opener
// writes.
#ifndef TANDEM_PLATFORM_TNDM_CORE_BUNDLE_H
#define TANDEM_PLATFORM_TNDM_CORE_BUNDLE_H

#include <array>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/tndm/core/buffer.h"
#include "platform/tndm/core/flow_window.h"
#include "platform/tndm/core/lane.h"
#include "platform/tndm/core/receive_stream.h"
#include "platform/tndm/core/schedule.h"
#include "platform/tndm/core/send_stream.h"
#include "platform/tndm/core/wire.h"

namespace tndm::core {

enum class role { client, server };

// What one side grants the other; the values that cross the wire are told in the handshake.
struct limits {
    uint64_t streams = 1024;                    // open at once, for each kind
    uint64_t stream_window = 1 << 20;           // first receive window of a stream, bytes
    uint64_t connection_window = 4 << 20;       // first receive window of the connection, bytes
    uint64_t stream_window_max = 16 << 20;      // own growth only: not told
    uint64_t connection_window_max = 24 << 20;  // likewise; bounds what the peer can make us hold
    uint64_t paused_allowance = 16 << 20;       // bytes in paused streams that the connection's window does not count
    size_t max_gaps = 1 << 16;                  // runs of bytes behind holes, over all streams
};

// A datagram to be sent: `head`, then the pieces of `body`. Valid until the next call of a function that is not const.
struct outgoing {
    wire::header head = wire::header::of(wire::probe{});
    pieces body;
    transmission record;    // what sent() takes note of
    bool is_copy = false;   // its bytes have been sent before
    bool from_line = true;  // they stand in line: what goes out leaves the line
    bool overdue = false;   // a faster lane should have taken it long ago

    size_t size() const { return head.size() + body.bytes; }
};

struct delivery {
    uint64_t stream = 0;
    std::vector<uint8_t> bytes;  // give the same object again, so that its memory is reused
    bool last = false;
};

class bundle {
  public:
    bundle(role own_role, const limits& own, const limits& peer);

    // --- application ---
    // Queues bytes on a stream that this side opened or that the peer opened and that is still open; false when the
    // stream is not to be written (unknown, over, or ended).
    bool queue(uint64_t stream, buffer&& bytes, bool last);
    // While a stream is paused nothing of it is delivered and the peer gets no new window for it.
    void pause(uint64_t stream, bool paused, instant now);
    // Nobody reads a stream of the peer any more: the peer learns that it need not send the rest. What comes until then
    // is delivered all the same.
    void stop(uint64_t stream);
    // How many streams of a kind (0 both ways, 1 one way) this side may have opened in all.
    uint64_t stream_credit(unsigned kind) const { return local_credit_[kind]; }
    // Everything queued has been acknowledged.
    bool drained() const;
    // Bytes held for the peer's streams, in order or not: bounded by the connection's window and the paused streams'
    // allowance.
    uint64_t bytes_held() const;

    // --- lanes ---
    lane_id add_lane(instant now, bool backup = false);
    // What the lane owed goes to the others. Unknown ids are ignored.
    void remove_lane(lane_id id, instant now);
    void set_rtt(lane_id id, duration smoothed, duration variation);
    // Delivery rate in bytes a second; 0 while unknown.
    void set_rate(lane_id id, uint64_t bytes_a_second);
    // Nothing may be sent on the lane yet; a backup does not rest for its sake.
    void set_awaited(lane_id id, bool awaited);
    // Which lane carries what; sooner_first() until something else is set.
    void set_schedule(const schedule& how) { schedule_ = &how; }
    void set_heartbeat(duration interval);
    // One datagram from the peer, on whichever lane.
    void received(std::span<const uint8_t> datagram, instant now);
    void acknowledged(lane_id id, uint64_t datagram, instant now);
    void lost(lane_id id, uint64_t datagram, instant now);
    void probe_refused(lane_id id, instant now);
    // Null for an id that is not (or no more) a lane.
    const lane* find_lane(lane_id id) const;
    // Lanes that answer.
    size_t active_lanes() const;

    // --- sending ---
    // The next datagram of at most `room` bytes for this lane; nothing when the lane has nothing to send now.
    std::optional<outgoing> next(lane_id id, size_t room, instant now);
    // Another copy of the oldest bytes that the lane waits for, for a probe packet; nothing when there are none.
    std::optional<outgoing> probe_copy(lane_id id, size_t room) const;
    // A datagram that makes the peer answer and carries nothing.
    static outgoing probe();
    // `datagram` went out on the lane under the lane's next_id().
    void sent(lane_id id, const outgoing& datagram, instant now);
    uint64_t next_id(lane_id id) const;
    // There may be more to send on this lane right now (a quick answer: next() knows for sure).
    bool has_more(lane_id id) const;

    // --- time ---
    void on_time(instant now);
    instant next_deadline() const;

    // --- results ---
    // False when there is nothing (more) to deliver now. `now` counts as the time when the bytes were consumed.
    bool take_delivery(delivery& out, instant now);
    // Streams that are over in both directions since the last call.
    std::vector<uint64_t> take_closed() { return std::exchange(closed_, {}); }
    struct progress {
        uint64_t stream;
        uint64_t bytes;  // sent for the first time
    };
    std::vector<progress> take_sent() { return std::exchange(sent_, {}); }
    // Streams of which the peer reads no more since the last call: queue() fails, and what was unsent is dropped (and
    // told as progress).
    std::vector<uint64_t> take_stopped() { return std::exchange(stopped_, {}); }
    // Not empty once the peer has broken the rules: the connection must end.
    const std::string& violation() const { return violation_; }

  private:
    // Lines of streams with bytes never sent, which take turns: those with little to say go before the others.
    enum : unsigned { prompt, bulk, nowhere };
    struct stream {
        stream(uint64_t stream_id, uint64_t send_limit, const limits& own)
            : id(stream_id),
              send(send_limit),
              receive(own.stream_window),
              window(own.stream_window, own.stream_window_max) {}

        uint64_t id;
        send_stream send;
        receive_stream receive;
        flow_window window;
        bool sends;     // this side writes it
        bool receives;  // the peer writes it
        bool paused = false;
        bool in_ready = false;
        bool window_dirty = false;
        bool stop_asked = false;
        unsigned line = nowhere;  // where it stands with bytes never sent
        std::list<stream*>::iterator place;
        uint64_t counted = 0;       // its part of that line's `unsent`
        uint64_t prompt_left = 0;   // what it may still send before others
        uint64_t turn_sent = 0;     // in the turn under way
        uint64_t prompt_again = 0;  // `bulk_sent_` from when on it gets a new allowance
        std::optional<std::list<stream*>::iterator> in_resend;
    };
    using stream_list = std::list<stream*>;
    struct line {
        stream_list streams;
        uint64_t unsent = 0;
        instant held_since = never;  // left to faster lanes, none of which has taken anything since then
    };
    static constexpr uint64_t turn = 16384;  // bytes
    static constexpr uint64_t most_ahead = 4 * turn;
    static constexpr uint64_t longest_turn = 4 * turn;

    // bundle.cpp
    static unsigned kind_of(uint64_t id) { return (id >> 1) & 1; }
    bool is_local(uint64_t id) const { return ((id & 1) != 0) == (role_ == role::server); }
    stream* find(uint64_t id);
    const stream* find(uint64_t id) const;
    bool may_open(uint64_t id) const;
    stream& open(uint64_t id);
    void retire_if_over(stream& s);
    void violate(std::string what);
    duration slowest_rtt() const;

    // bundle_receive.cpp
    void on_chunk(const wire::chunk& chunk, instant now);
    stream* stream_of_chunk(const wire::chunk& chunk);
    bool accept_preface(const wire::preface& first);
    void on_frame(const wire::window& frame);
    void on_frame(const wire::stream_window& frame);
    void on_frame(const wire::streams& frame);
    void on_frame(const wire::stop& frame);
    stream* find_or_open(uint64_t id);
    void lend_memory(stream& s);
    void make_ready(stream& s);
    bool held_back(const stream& s) const;
    void release_preface();
    void grant(stream& s, instant now);
    void tell_window(stream& s);
    void grow_windows(stream& s);
    void grant_connection(instant now);

    // bundle_send.cpp
    lane* lane_of(lane_id id);
    bool is_prompt(stream& s) const;
    void note_fresh(stream& s);
    void leave_line(stream& s);
    void note_resend(stream& s);
    void requeue(lane& from, transmission& record, instant now);
    void fall_silent(lane& l, instant now);
    std::optional<outgoing> next_control(size_t room);
    std::optional<outgoing> next_resend(const lane& l, size_t room, instant now);
    std::optional<outgoing> next_fresh(const lane& l, size_t room, instant now);
    std::optional<outgoing> next_fresh(unsigned which, const lane& l, size_t room, instant now);
    std::optional<outgoing> next_copy(lane& l, size_t room, instant now);
    const stream* fresh_turn(unsigned which) const;
    bool may_take_fresh(unsigned which, const lane& l) const;
    bool lags_behind(const lane& l) const;
    std::optional<outgoing> chunk_of(const stream& s, range part, size_t room) const;
    std::optional<wire::preface> preface_for(const stream& s) const;
    const stream* unsent_preface() const;
    uint64_t connection_room(unsigned which) const;

    // bundle_sent.cpp
    void chunk_sent(lane& l, stream& s, const outgoing& datagram);
    bool turn_is_over(stream& s, uint64_t bytes);
    uint64_t bulk_turn() const;

    role role_;
    limits own_;
    limits peer_;
    lane_map lanes_;
    const schedule* schedule_ = &sooner_first();
    lane_id next_lane_ = 0;
    duration heartbeat_{0};
    std::unordered_map<uint64_t, std::unique_ptr<stream>> streams_;
    std::string violation_;

    // Sending.
    std::array<line, 2> lines_;
    uint64_t bulk_sent_ = 0;  // by streams in the bulk line
    uint64_t ahead_ = 0;      // bytes by which the prompt line is ahead of bulk that waits, up to `most_ahead`
    stream_list resend_;      // streams with bytes to be sent again
    uint64_t peer_window_;
    uint64_t sent_total_ = 0;
    uint64_t unsent_total_ = 0;     // queued on all streams and never sent
    instant resend_retry_ = never;  // when a slower lane may take what a faster one has left lying
    std::optional<uint64_t> preface_stream_;
    uint64_t preface_length_ = 0;
    bool preface_open_ = true;  // only the first stream has been written so far
    bool preface_done_ = false;
    std::vector<progress> sent_;

    // Streams' ids: cumulative credits, and which of the peer's ids are over.
    std::array<uint64_t, 2> local_credit_;
    std::array<uint64_t, 2> peer_credit_;
    std::array<range_set, 2> peer_over_;   // indices (id / 4) of the peer's streams that are over
    std::array<range_set, 2> local_over_;  // likewise of ours, so that late chunks are told from foreign ones
    std::vector<uint64_t> stopped_;
    std::vector<uint64_t> closed_;

    // Receiving.
    flow_window connection_window_;
    uint64_t received_total_ = 0;  // sum of what the peer has used of all streams
    uint64_t taken_total_ = 0;
    uint64_t paused_ready_ = 0;  // bytes in order in paused streams
    size_t gaps_ = 0;
    std::deque<uint64_t> ready_;
    std::vector<std::vector<uint8_t>> spare_;  // memory of earlier deliveries, for the next ones
    std::optional<wire::preface> hold_;
    bool hold_released_ = false;

    // Grants that the peer must hear of.
    bool window_dirty_ = false;
    std::array<bool, 2> streams_dirty_{};
    std::deque<uint64_t> stream_windows_dirty_;
    std::deque<uint64_t> stops_dirty_;
};

}  // namespace tndm::core

#endif
