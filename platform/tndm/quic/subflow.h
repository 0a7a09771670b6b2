// One QUIC connection over one network path.
//
// Driven from one thread: read() takes datagrams from the socket, on_time() is called when deadline() has come, flush()
// writes what is due. None of them calls the owner back; afterwards the owner asks for next_message(), closed(), and so
// on. Once attached to a bundle the subflow is one of its lanes: datagrams, acknowledgements and losses go straight
// into the bundle, and flush() pulls from it.
#ifndef TANDEM_PLATFORM_TNDM_QUIC_SUBFLOW_H
#define TANDEM_PLATFORM_TNDM_QUIC_SUBFLOW_H

#include <ngtcp2/ngtcp2.h>
#include <ngtcp2/ngtcp2_crypto.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/tndm/core/bundle.h"
#include "platform/tndm/quic/control_message.h"
#include "platform/tndm/quic/tls_session.h"
#include "platform/tndm/udp/address.h"

namespace tndm {

// Why a QUIC connection is ended on purpose; the application error code on the wire.
enum class close_code : uint64_t {
    bundle_closed = 0,  // the whole connection is over
    subflow_only = 1,   // this path goes, or another subflow takes its place
    violation = 2,      // the peer broke the rules: the whole connection is over
    join_refused = 3,   // no such bundle, or a wrong proof
    busy = 4,           // more connections than the server takes
    lanes_full = 5,     // the bundle has as many lanes as it may: only this one ends
};

struct subflow_settings {
    ngtcp2_cc_algo congestion = NGTCP2_CC_ALGO_BBR2;
    size_t first_payload = 1400;  // the largest UDP payload before path MTU discovery has found a larger one
    bool trace = false;
    core::duration first_rtt = std::chrono::milliseconds(333);  // before there is a sample: how soon to repeat
};

// How the owner hears of connection ids that the peer may address (a server finds subflows by them).
struct id_registrar {
    virtual ~id_registrar() = default;
    virtual void add_id(const ngtcp2_cid& id) = 0;
    virtual void remove_id(const ngtcp2_cid& id) = 0;
    // Fills the stateless reset token of one of our ids.
    virtual void reset_token(const ngtcp2_cid& id, std::span<uint8_t, NGTCP2_STATELESS_RESET_TOKENLEN> token) = 0;
};

// A run of equal-sized datagrams for one peer.
struct outgoing_batch {
    std::span<const uint8_t> data;
    size_t segment_size;
    const endpoint& local;
    const endpoint& remote;
    int ecn;
};
// Puts a batch on the wire; false when the socket takes no more now (what is not sent counts as lost by the network).
using batch_sink = std::function<bool(const outgoing_batch&)>;

class subflow {
  public:
    static constexpr size_t server_id_length = 16;
    static constexpr size_t client_id_length = 8;
    // A flush writes at most this much before it hands a batch over; the caller lends the memory.
    static constexpr size_t batch_capacity = 64 * 1452;

    // Null on failure (out of memory).
    static std::unique_ptr<subflow> create_client(const subflow_settings& settings, std::unique_ptr<tls_session> tls,
                                                  const endpoint& local, const endpoint& remote, core::instant now);
    // What a server knows of the client's first packet.
    struct first_packet {
        uint32_t version;
        ngtcp2_cid client_id;                // the client's source id
        ngtcp2_cid first_id;                 // the destination id of its very first packet
        std::optional<ngtcp2_cid> retry_id;  // our Retry's source id, when there was one
        std::span<const uint8_t> token;
    };
    static std::unique_ptr<subflow> create_server(const subflow_settings& settings, std::unique_ptr<tls_session> tls,
                                                  const endpoint& local, const endpoint& remote,
                                                  const first_packet& first, id_registrar& ids, core::instant now);
    ~subflow();
    subflow(const subflow&) = delete;
    subflow& operator=(const subflow&) = delete;

    // --- input ---
    void read(std::span<const uint8_t> datagram, const endpoint& local, const endpoint& remote, uint8_t ecn,
              core::instant now);
    void on_time(core::instant now);
    core::instant deadline() const { return deadline_; }
    // Writes everything that is due. `buffer` holds batch_capacity bytes.
    void flush(core::instant now, std::span<uint8_t> buffer, const batch_sink& sink);
    // Queues a message on the control stream.
    void send(const control::message& value);
    // Becomes a lane. `may_send` false: only after the peer has said that it is ready, or has sent a datagram.
    void attach(core::bundle& bundle, core::lane_id lane, bool may_send);
    // Stops being one (the caller removes the lane).
    void detach() { bundle_ = nullptr; }
    // Says goodbye; one datagram, best effort.
    void close(close_code code, core::instant now, std::span<uint8_t> buffer, const batch_sink& sink);

    // --- output ---
    std::optional<control::message> next_message();
    bool handshake_completed() const { return handshake_completed_; }
    struct ending {
        std::optional<close_code> code = std::nullopt;  // the peer ended it on purpose, or broke the rules
        bool reset = false;                             // the peer knows nothing of this connection (stateless reset)
        bool by_peer = false;
        std::string reason = {};  // one line
    };
    // Set once the connection is over: it then does nothing any more.
    const std::optional<ending>& ended() const { return ended_; }
    std::string alpn() const { return tls_->selected_alpn(); }
    const tls_session& tls() const { return *tls_; }
    const endpoint& remote() const { return remote_; }
    const endpoint& local() const { return local_; }
    core::lane_id lane() const { return lane_; }
    bool attached() const { return bundle_ != nullptr; }
    // The peer knows what our datagrams belong to.
    bool may_send() const { return may_send_; }

    struct counters {
        uint64_t packets_sent = 0, packets_received = 0, bytes_sent = 0, bytes_received = 0;
    };
    const counters& traffic() const { return counters_; }
    ngtcp2_conn_stat statistics() const;

  private:
    enum class write_result { packet, nothing, failed };
    struct written {
        write_result result;
        size_t size = 0;
        int ecn = 0;
    };

    subflow(const subflow_settings& settings, std::unique_ptr<tls_session> tls, const endpoint& local,
            const endpoint& remote);
    ngtcp2_settings library_settings(core::instant now) const;
    ngtcp2_transport_params parameters() const;
    static ngtcp2_callbacks callbacks(bool server);
    static subflow& of(void* user_data) { return *static_cast<subflow*>(user_data); }
    void adopt(ngtcp2_conn* connection);

    // subflow_callbacks.cpp
    static int on_handshake_completed(ngtcp2_conn*, void* user);
    static int on_stream_data(ngtcp2_conn*, uint32_t flags, int64_t stream, uint64_t offset, const uint8_t* data,
                              size_t size, void* user, void*);
    static int on_stream_acknowledged(ngtcp2_conn*, int64_t stream, uint64_t offset, uint64_t size, void* user, void*);
    static int on_stream_open(ngtcp2_conn*, int64_t stream, void* user);
    static int on_datagram(ngtcp2_conn*, uint32_t flags, const uint8_t* data, size_t size, void* user);
    static int on_datagram_acknowledged(ngtcp2_conn*, uint64_t id, void* user);
    static int on_datagram_lost(ngtcp2_conn*, uint64_t id, void* user);
    static int on_new_id(ngtcp2_conn*, ngtcp2_cid* id, uint8_t* token, size_t length, void* user);
    static int on_remove_id(ngtcp2_conn*, const ngtcp2_cid* id, void* user);
    static int on_stateless_reset(ngtcp2_conn*, const ngtcp2_pkt_stateless_reset*, void* user);
    static void on_random(uint8_t* out, size_t size, const ngtcp2_rand_ctx*);
    void note_large_chunk(uint64_t id, bool arrived);

    // subflow_write.cpp
    bool write_batch(core::instant now, std::span<uint8_t> buffer, const batch_sink& sink);
    written write_packet(core::instant now, std::span<uint8_t> out, bool last_of_batch);
    written write_control_stream(core::instant now, std::span<uint8_t> out);
    written write_datagram(core::instant now, std::span<uint8_t> out, const core::outgoing& datagram, bool anchored);
    written write_acknowledgements(core::instant now, std::span<uint8_t> out);
    written write_idle(core::instant now, std::span<uint8_t> out);
    written finish_write(ngtcp2_ssize result, const ngtcp2_pkt_info& info);
    void bound_pace(const ngtcp2_conn_stat& stat);
    void raise_anchor();
    void take_over_path();
    size_t largest_datagram(bool anchored) const;
    bool chunk_room(size_t packets) const;

    void fail(int library_error);
    void end(ending why);
    void update_deadline();

    subflow_settings settings_;
    std::unique_ptr<tls_session> tls_;  // outlives the connection
    ngtcp2_conn* connection_ = nullptr;
    endpoint local_;
    endpoint remote_;
    ngtcp2_path_storage out_path_;  // of the packet written last
    bool path_changed_ = false;     // it differs from local_ and remote_
    id_registrar* ids_ = nullptr;
    core::instant deadline_ = core::never;
    core::instant now_{};  // of the call under way, for the callbacks
    std::optional<ending> ended_;
    bool handshake_completed_ = false;
    bool stateless_reset_ = false;
    int fatal_ = 0;  // what must be told to the peer with a CONNECTION_CLOSE
    counters counters_;

    // The control stream. What was sent stays here until it is acknowledged: the library refers to it.
    int64_t stream_ = -1;
    std::deque<std::vector<uint8_t>> stream_out_;
    uint64_t stream_acknowledged_ = 0;  // bytes of the first message
    bool stream_blocked_ = false;       // the peer must let us send more first; looked at again after each datagram
    size_t stream_next_ = 0;            // the first message not wholly given to the library
    size_t stream_offset_ = 0;          // within that message
    control::decoder stream_in_;

    // The lane.
    core::bundle* bundle_ = nullptr;
    core::lane_id lane_ = 0;
    void allow_sending();
    bool may_send_ = false;
    bool anchor_raised_ = false;  // the next packet that goes out carries one
    bool unanchored_ = false;     // datagrams went out behind the last anchor
    unsigned probes_due_ = 0;     // packets that must carry an anchor and, if possible, a copy of old bytes
    size_t pto_count_ = 0;
    uint64_t window_ = 0;         // congestion window when the flush began
    double pace_ = 0;             // our bound on the pace, bytes a nanosecond; 0: none yet
    core::instant pace_until_{};  // nothing of the bundle's goes out before that
    bool held_back_ = false;      // something waits for it

    // Black holes: the library finds a path's MTU but never notices that it has shrunk.
    unsigned large_losses_ = 0;        // times that large chunks were lost while no large one arrived
    core::instant last_large_loss_{};  // the latest of those
    bool small_only_ = false;
};

}  // namespace tndm

#endif
