#ifndef TANDEM_CONTEXT_CONNECTION_CONTEXT_H
#define TANDEM_CONTEXT_CONNECTION_CONTEXT_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "common/export.h"
#include "common/packet.h"
#include "context/congestion_detection.h"
#include "link/tloop.h"

namespace tandem {

class link_t;

// One connection: makes packets of the bytes that arrive on its streams, hands them to the on_* handlers and sends
// their replies.
//
// constructed (closed) -> reset: bound to a connection -> closed: by force_close, by the end of a control stream, or by
// the link at disconnection or destruction. It may be bound again.
//
// The link calls reset, push_stream_data and the on_* handlers on the loop's thread. send_packet, force_close and the
// detectors' operations may be called from any thread while the context is bound.
class TANDEM_API connection_context_t {
  public:
    // Stands for: no stream.
    static constexpr uint64_t no_stream = ~uint64_t{0};

    connection_context_t();
    connection_context_t(const connection_context_t&) = delete;
    connection_context_t& operator=(const connection_context_t&) = delete;
    virtual ~connection_context_t();

    // A client's first message on its control stream, behind the marker; null sends none.
    virtual std::shared_ptr<packet_t> on_create_initial_control_packet(uint64_t stream_id);
    // A packet of a control stream, or of another stream. A packet that is returned goes out on the same stream; when
    // its `fin` is set, what else arrived with this packet is dropped. `skip`: the packet is not whole, for the stream
    // ended inside it or its framing is broken. `fin`: the bytes that brought this packet end the stream, though more
    // packets may follow in them (`delivery_remaining_`). `handled` is for handlers that call each other.
    virtual std::shared_ptr<packet_t> on_received_control_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet,
                                                                 bool skip, int fin, bool& handled);
    virtual std::shared_ptr<packet_t> on_received_stream_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet,
                                                                bool skip, int fin, bool& handled);
    // The connection is gone.
    virtual void on_destroy();
    // Closes the connection, once however often it is called. Any thread; one other than the loop's must hold no lock
    // that a handler takes, for the status timer is stopped between two callbacks of the loop.
    virtual void force_close();
    // Queues a packet: the bytes queued, 0 when there was nothing to send, -1 on failure (without a connection or a
    // stream, too).
    virtual int send_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet, int flags);
    virtual int send_packet(uint64_t stream_id, packet_t* packet, int flags);
    virtual int send_packet(uint64_t stream_id, packet_t& packet, int flags);
    // Whether packets are dispatched: the peer's control stream is known.
    virtual bool link_ready();
    // Binds the context to a connection. `status_interval` in microseconds.
    virtual void reset(void* instance, void* connection, st_tloop_t* loop, uint64_t status_interval,
                       const std::string& alpn);
    virtual void internal_cleanup();
    virtual void start_status_timer();
    virtual void stop_status_timer();
    // Statistics of the transport, as its tndm_statistics_cb describes them.
    virtual void on_transport_calculate(uint64_t value_a, uint64_t value_b, uint64_t value_c, uint64_t value_d,
                                        uint64_t value_e);

    // Bytes of a stream in order; `fin` is nonzero with the last ones. Loop's thread.
    void push_stream_data(uint64_t stream_id, const uint8_t* data, uint32_t len, int fin);
    // A stream's backlog has come down to what was asked for. Loop's thread.
    void stream_writable(uint64_t stream_id);
    // The id of the next stream that this side opens (`flag`: one that only this side writes), or no_stream.
    uint64_t get_next_local_stream_id(bool flag);
    // Microseconds since construction or the last reset.
    int64_t time_span();

    // A detector with a window of `range` milliseconds, sampled with each update_cg; null when `range` is not positive.
    std::shared_ptr<congestion_detection> create_congestion_detection(int range);
    void remove_congestion_detection(std::shared_ptr<congestion_detection> detection);
    // Samples the connection's backlog for every detector. Nothing calls this by itself: call it, or put cg_timer_fn on
    // a loop timer with the context as its argument.
    void update_cg();
    static void cg_timer_fn(st_tloop_t* loop, void* timer, void* context);
    // Where detectors begin and cease to be needed; deliberately empty. `cg_mutex` is held.
    void start_cg();
    void stop_cg();

  protected:
    friend class link_t;

    // 0 while bound to a live connection; the change to 1 deletes the connection, once.
    std::atomic<uint32_t> closed{1};
    std::string alpn;
    uint32_t is_server = 0;
    void* instance = nullptr;
    void* connection = nullptr;
    st_tloop_t* loop = nullptr;
    uint64_t status_interval = 0;  // microseconds
    // The packet of each stream whose bytes have only partly arrived. Loop's thread.
    std::map<uint64_t, std::shared_ptr<packet_t>> pending;
    uint64_t control_stream_id = no_stream;
    uint64_t peer_control_stream_id = no_stream;
    uint64_t start_time = 0;  // steady clock, microseconds
    std::atomic<bool> peer_control_known{false};
    std::mutex cg_mutex;  // guards cg_list
    std::list<std::shared_ptr<congestion_detection>> cg_list;

    // While a packet is dispatched: the bytes of the current delivery behind it. Only when it is 0 does `fin` mean that
    // nothing follows.
    uint32_t delivery_remaining_ = 0;
    // The longest body that a peer may send; a longer one is a framing fault. To be set before data arrive.
    uint32_t max_frame_length = UINT32_MAX;
    // Called on the loop's thread by stream_writable. To be set before the context is bound.
    std::function<void(uint64_t stream_id)> writable_handler_;
    // Called on the loop's thread when all packets of a delivery have been dispatched. To be set before the context is
    // bound.
    std::function<void()> delivered_handler_;
    // Whether `bytes` of a stream, or its end, are taken; otherwise they are dropped. Called on the loop's thread,
    // before anything is kept of them. To be set before data arrive.
    std::function<bool(uint64_t stream_id, uint32_t bytes, int fin)> admit_stream_;
    // Called on the loop's thread for each frame that comes before the peer's marker, and is dropped. To be set before
    // data arrive.
    std::function<void()> unmarked_handler_;
    // Whether a stream's `bytes` of a frame that is not complete may be kept; otherwise the frame is lost, as one that
    // is too long is. 0: nothing is kept any more. Called on the loop's thread. To be set before data arrive.
    std::function<bool(uint64_t stream_id, uint64_t bytes)> keep_partial_;
    // Whether an empty frame that does not end its stream is a packet without bytes. Otherwise it is a framing fault.
    // Never so on control streams. To be set before data arrive.
    bool accept_empty_frames_ = false;

  private:
    bool accept_marker(uint64_t stream_id, const packet_t& packet);
    bool dispatch(uint64_t stream_id, const std::shared_ptr<packet_t>& packet, bool skip, int fin, uint32_t remaining);
    void take_packets(uint64_t stream_id, const uint8_t* data, uint32_t len, int fin);
};

}  // namespace tandem

#endif  // TANDEM_CONTEXT_CONNECTION_CONTEXT_H
