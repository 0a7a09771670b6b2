#ifndef TANDEM_FORWARD_ADVANCED_CONNECTION_CONTEXT_H
#define TANDEM_FORWARD_ADVANCED_CONNECTION_CONTEXT_H

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "common/export.h"
#include "common/packet.h"
#include "context/default_connection_context.h"
#include "forward/stream_set.h"
#include "forward/tcp_flow.h"
#include "link/tloop.h"

namespace tandem {

class frame_batch_t;
class worker_gate_t;

// classic: fast and simple, drops the rest of a short write and what waits when a stream ends, knows no half-close, and
// reads however much the link can take. lossless: TCP loses no byte, each direction ends by itself, and queues are
// bounded both ways. Both put the same bytes on a stream, so each side chooses for itself.
enum class delivery_t { classic, lossless };

// Carries TCP connections, UDP flows and tun/tap interfaces over the streams of a connection.
//
// The side that registers a forward listens; the other side opens the target. Each accepted connection, each UDP source
// and each tun/tap device has a stream of its own, which begins with a request that names the target.
//
// Threads: add_*_forward and remove_forward may be called from any thread. All descriptors are watched on one loop, the
// caller's or the context's own; packets come in on the link's loop, which may be another thread. Targets are resolved
// and opened on short-lived worker threads, which also call the on_create_* hooks.
//
// Locks: `table_lock`, then a record's `lock`; `tx_queue_lock` and the workers' gate are taken alone or last. No lock
// is held over a hook, nor where another thread than the loop's wakes it. The transport's functions must not call back
// from inside a call.
class TANDEM_API advanced_connection_context_t : public default_connection_context_t {
  public:
    enum forward_type_t : int32_t { TYPE_TCP = 1, TYPE_UDP = 2, TYPE_VPN = 3 };

    // What `forward_detail::state` holds.
    enum forward_state_t : int32_t {
        STATE_OPEN = 0,        // a listener, or an instance made at the peer's request
        STATE_TO_OPEN = 1,     // to be opened by the next pass
        STATE_TO_CLOSE = 2,    // to be closed by the next pass
        STATE_INITIATED = 3,   // open, made on this side, request sent
        STATE_CONNECTING = 4,  // a worker opens the target
        STATE_CLOSED = 5,      // leaves the tables with the next purge
    };

    struct outgoing_t {
        packet_queue_t packets;
        size_t bytes = 0;
    };

    // A registered forward, or one forwarded flow: a descriptor and its stream. The loop's thread owns the record;
    // `lock` guards what other threads reach too.
    struct TANDEM_API forward_detail {
        forward_detail() = default;
        forward_detail(const forward_detail&) = delete;
        forward_detail& operator=(const forward_detail&) = delete;
        // Joins the worker, or lets go of it when it is the worker itself that drops the last reference.
        ~forward_detail();

        std::atomic<int32_t> state{0};
        int32_t type = 0;
        int32_t fd = -1;         // changes under `lock`
        int32_t parent_fd = -1;  // the listener's, for what came in through it
        uint64_t stream_id = no_stream;
        bool keep_open = false;      // the caller owns `fd`
        std::string target_address;  // VPN: the options of the peer's interface
        uint16_t target_port = 0;
        sockaddr_storage peer_address{};  // UDP: where datagrams go
        int64_t last_active_us = 0;       // steady clock; under `lock`
        std::thread connect_thread;       // under `lock`; no thread: a worker's result is not wanted
        std::mutex lock;
        void* read_io = nullptr;
        void* write_io = nullptr;
        bool rx_active = false;  // under `lock`, as is all below
        bool tx_active = false;
        std::deque<std::shared_ptr<packet_t>> pending_packets;  // from the stream, not yet written
        tcp_flow_t flow;
        std::shared_ptr<void> permit;           // of on_request
        std::unique_ptr<outgoing_t> outgoing;   // UDP: what the stream has no room for; loop's thread
        std::atomic<bool> has_received{false};  // VPN: a frame came in
        int64_t reopen_after_us = 0;            // VPN forward: the pause before the next try, 0 before the first
    };

    // `loop` runs all forwarding and must outlive the context; null makes a loop and a thread of its own. The four
    // texts are those of default_connection_context_t.
    advanced_connection_context_t(st_tloop_t* loop, const std::string& i, const std::string& c, const std::string& t,
                                  const std::string& m);
    // Closes everything. With a caller's loop any thread may destroy the context, whether or not the loop runs.
    ~advanced_connection_context_t() override;

    // How TCP is delivered; classic unless it is called. To be called before the context is bound to a connection.
    void set_delivery(delivery_t delivery);

    // Registers a listening TCP socket, a bound UDP socket or a tun/tap descriptor. Returns the descriptor as the
    // forward's handle, or -1 (a wrong argument, a descriptor that is registered already). With `keep_open` the
    // descriptor stays the caller's; without it the context closes it.
    int add_tcp_forward(int fd, const std::string& target_addr, uint16_t target_port, bool keep_open);
    int add_udp_forward(int fd, const std::string& target_addr, uint16_t target_port, bool keep_open);
    // `target_options`: the options of the peer's interface, see parse_if_options.
    int add_vpn_forward(int tun_tap_fd, const std::string& target_options, bool keep_open);
    // Closes a forward and all that came in through it: 1, or 0 when there is none.
    int remove_forward(int handle);
    // Brings descriptors in line with the tables. Loop's thread.
    void update_forwarding();

    // Each returns a non-blocking descriptor, or -1. A port of 0 takes any, and is filled in. An address that is
    // neither numeric nor a wildcard names an interface.
    int open_tcp_listen_socket(const std::string& address, unsigned short* port);
    int open_tcp_listen_socket(unsigned short* port);
    int open_udp_socket(const std::string& address, unsigned short* port);
    int open_udp_socket(unsigned short* port);
    // The connection may still be in progress.
    int open_tcp_connect_socket(sockaddr_storage* target);
    // Resolves `host` first, which may block.
    int open_tcp_connect_socket(const std::string& host, unsigned short port);
    // `ifname`: the wanted name or empty; receives the interface's name. `mode`: "tap" or "TAP", else a tun device.
    int open_tuntap_vpn(const std::string& device, std::string& ifname, const std::string& mode);
    void set_default_tuntap_device(const std::string& device);
    // Reads `key: value; key: 'quoted;value'; ...` and returns the number of entries.
    int parse_if_options(const std::string& text, std::multimap<std::string, std::string>& options);
    // Where a derived class applies the options to an interface; runs on a worker. The default applies none.
    virtual bool set_if_options(const std::string& ifname, std::multimap<std::string, std::string>& options);

    void reset(void* instance, void* connection, st_tloop_t* loop, uint64_t status_interval,
               const std::string& alpn) override;
    void on_destroy() override;
    std::shared_ptr<packet_t> on_received_stream_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet, bool skip,
                                                        int fin, bool& handled) override;

    // Hooks that open a target in the library's place; they run on worker threads. A negative result leaves it to the
    // library. The descriptor becomes the library's and is made non-blocking. Destruction waits for a hook that runs.
    virtual int on_create_tcp_connect_socket(uint64_t stream_id, sockaddr_storage* target);
    virtual int on_create_udp_connect_socket(uint64_t stream_id, sockaddr_storage* target);
    virtual int on_create_vpn_interface(uint64_t stream_id, std::multimap<std::string, std::string>& options,
                                        std::string& ifname, const std::string& mode);
    // Claims packets of streams that carry no forward; a returned packet is the reply. Link's thread.
    virtual std::shared_ptr<packet_t> on_external_analyse_stream_packet(uint64_t stream_id,
                                                                        std::shared_ptr<packet_t> packet, bool skip,
                                                                        int fin, bool& handled);

    // What the peer asks this side to open. For a VPN `address` holds the options.
    struct request_t {
        uint64_t stream_id;
        int32_t type;
        std::string address;
        uint16_t port;
    };
    // What a derived class may attach to a request; each is let go when its time is over, on any thread.
    struct permits_t {
        std::shared_ptr<void> instance;  // until the request's stream and descriptor are closed
        std::shared_ptr<void> worker;    // until the target is open, or has failed
    };
    // Whether a request of the peer is taken up; otherwise its stream is ended. The default takes all. Link's thread.
    virtual bool on_request(const request_t& request, permits_t& permits);
    // Whether the address that a request's TCP or UDP target stands for may be opened. It is this one that will be
    // opened. The default says yes. Runs on a worker, before the on_create_* hooks.
    virtual bool on_target_resolved(const request_t& request, const sockaddr_storage& address);
    // What became of a VPN forward of this side: the peer's interface has sent its first frame, or the peer has ended
    // the stream before it sent any; with lossless delivery it is asked again later. The default does nothing. Link's
    // thread.
    virtual void on_vpn_answered(int fd, bool carries);

  protected:
    using record_t = std::shared_ptr<forward_detail>;

    // Ends forwarding for good and waits for running hooks. A derived class with hooks or a send_packet of its own
    // calls it first in its destructor, so that nothing runs on a half-destroyed object.
    void stop_forwarding();

    bool create_socket_listen_instance(record_t fwd);
    void cleanup_socket_listen_instance(record_t fwd);
    bool create_socket_connection_instance(record_t inst, bool initiator);
    void cleanup_socket_connection_instance(record_t inst);
    void start_rx(record_t inst);
    void stop_rx(record_t inst);
    void start_tx(record_t inst);
    void stop_tx(record_t inst);
    void check_and_start_txs();
    void period_check();
    void reap_idle_peers(int64_t now);
    void task_thread_run(std::string name);
    void dynamic_connect_thread_task(record_t record);

    void process_tcp_listen_io_read(int fd);
    void process_udp_listen_io_read(int fd);
    void process_tcp_connection_io_read(int fd);
    void process_tcp_connection_io_write(int fd);
    void process_udp_connection_io_read(int fd);
    void process_vpn_connection_io_read(int fd);
    void process_vpn_connection_io_write(int fd);

    static void on_update_async(st_tloop_t* loop, void* handle, void* user);
    static void on_ioevt_async(st_tloop_t* loop, void* handle, void* user);
    static void on_period_timer(st_tloop_t* loop, void* timer, void* user);
    static void on_tcp_listen_io_read(st_tloop_t*, void* io, int fd, void* user, en_tloop_io_event_t event);
    static void on_udp_listen_io_read(st_tloop_t*, void* io, int fd, void* user, en_tloop_io_event_t event);
    static void on_tcp_connection_io_read(st_tloop_t*, void* io, int fd, void* user, en_tloop_io_event_t event);
    static void on_tcp_connection_io_write(st_tloop_t*, void* io, int fd, void* user, en_tloop_io_event_t event);
    static void on_udp_connection_io_read(st_tloop_t*, void* io, int fd, void* user, en_tloop_io_event_t event);
    static void on_vpn_connection_io_read(st_tloop_t*, void* io, int fd, void* user, en_tloop_io_event_t event);
    static void on_vpn_connection_io_write(st_tloop_t*, void* io, int fd, void* user, en_tloop_io_event_t event);

    std::string tuntap_device = "/dev/net/tun";  // under table_lock
    st_tloop_t* loop = nullptr;                  // the forwarding loop; the link's is connection_context_t::loop
    void* period_timer = nullptr;
    void* update_async = nullptr;
    void* ioevt_async = nullptr;
    std::atomic<bool> stopping{false};
    std::thread loop_thread;
    uint64_t max_remote_stream_id = 0;  // link's thread
    std::mutex table_lock;              // guards the tables
    std::mutex tx_queue_lock;           // guards tx_start_queue and writable_streams_
    std::deque<record_t> tx_start_queue;
    std::map<int, record_t> forwards;
    std::map<int, record_t> local_instances;
    std::map<std::string, record_t> udp_peers;
    std::map<uint64_t, record_t> local_streams;
    std::map<int, record_t> remote_instances;
    std::map<uint64_t, record_t> remote_streams;
    std::map<uint64_t, record_t> pending_remote;

  private:
    struct backend_t;
    struct scratch_t;

    // What a TCP pump works on, and the marks that hold for it just now.
    struct tcp_lookup_t {
        record_t instance;
        flow_marks_t marks;
    };

    bool lossless() const { return delivery_.load(std::memory_order_relaxed) == delivery_t::lossless; }
    void wake(void* async);
    uint64_t new_stream();
    void* create_io(tloop_io_cb callback, int fd, int events);
    static record_t make_instance(const forward_detail& forward, int fd, uint64_t stream_id);
    static bool request_close(forward_detail& record);
    void close_from_pump(const record_t& inst);

    bool insert_forward(int fd, int32_t type, const std::string& target, uint16_t port, bool keep_open);
    record_t find_forward(int fd);
    record_t find_instance(int fd);
    tcp_lookup_t find_tcp(int fd);
    flow_marks_t current_marks() const;
    template <typename key_t>
    void put(std::map<key_t, record_t>& table, const key_t& key, const record_t& record);
    void add_local(const record_t& inst);
    void pass_forwards(bool stop);
    void pass_instances(std::map<int, record_t>& table, bool stop, bool initiator);
    void pass_udp_peers(bool stop);
    void pass_pending_remote(bool stop);
    void purge();

    bool create_vpn_instance(const record_t& fwd);
    bool create_watchers(const record_t& inst, bool initiator);
    bool create_watcher_pair(const record_t& inst, tloop_io_cb read, tloop_io_cb write, const char* name);
    bool send_request(const record_t& inst);
    int release_descriptor(forward_detail& inst);
    void stop_tx_locked(forward_detail& inst);
    void end_stream(uint64_t stream_id);

    void accept_one(const record_t& forward, int fd, sockaddr_storage& from);
    void fail_listener(const record_t& forward);
    bool outlast_accept_error(const record_t& forward, int error);
    void read_classic(const record_t& inst, int fd);
    void write_classic(const record_t& inst, int fd);

    void read_lossless(const record_t& inst, int fd, const flow_marks_t& marks);
    void end_reading(const record_t& inst);
    void pause_reading(const record_t& inst, const flow_marks_t& marks);
    void resume_reading(const record_t& inst);
    uint64_t unsent_bytes(uint64_t stream_id);
    uint64_t unsent_of_connection();
    void start_writing(const record_t& inst);
    void write_lossless(const record_t& inst, const flow_marks_t& marks);
    bool write_some(const record_t& inst, const flow_marks_t& marks);
    void finish_writing(const record_t& inst);
    void resume_writable_streams();
    void resume_paused();
    void stream_became_writable(uint64_t stream_id);

    record_t find_stream(uint64_t stream_id, flow_marks_t& marks);
    std::shared_ptr<packet_t> take_partial(const record_t& inst, const std::shared_ptr<packet_t>& packet, int fin,
                                           const flow_marks_t& marks);
    void close_at_stream_end(const record_t& inst);
    void deliver(const record_t& inst, const std::shared_ptr<packet_t>& packet, int fin, const flow_marks_t& marks);
    void deliver_udp(const record_t& inst, const std::shared_ptr<packet_t>& packet, int fin);
    void deliver_classic(const record_t& inst, const std::shared_ptr<packet_t>& packet, int fin);
    void deliver_lossless(const record_t& inst, const std::shared_ptr<packet_t>& packet, bool skip, int fin,
                          const flow_marks_t& marks);
    void queue_start(const record_t& inst);
    static bool read_request(packet_t& packet, request_t& request);
    bool accept_request(const request_t& request, bool ended);
    void start_worker(const record_t& inst, std::shared_ptr<void> permit);

    record_t find_udp_peer(const record_t& forward, int fd, sockaddr_storage& from, bool& update_owed);
    bool take_datagram(const record_t& forward, int fd, packet_t& packet, sockaddr_storage& from, bool& update_owed);
    void end_udp_listen(const record_t& forward, int fd, ssize_t received, bool update_owed);
    std::string default_tuntap_device();
    static int flush_datagrams(forward_detail& inst);

    // With lossless delivery.
    scratch_t& scratch();
    frame_batch_t& frames();
    void read_udp_listen_lossless(const record_t& forward, int fd);
    void read_udp_lossless(const record_t& inst, int fd);
    bool send_frames(const record_t& inst);
    bool transmit_frames(const record_t& inst);
    void await_writable(const record_t& inst, const flow_marks_t& marks);
    void send_waiting_datagrams(const record_t& inst);
    void deliver_udp_lossless(const record_t& inst, const std::shared_ptr<packet_t>& packet, int fin);
    void send_delivered();
    void read_vpn_lossless(const record_t& inst, int fd);
    bool send_vpn_frames(const record_t& inst);
    void deliver_vpn_lossless(const record_t& inst, const std::shared_ptr<packet_t>& packet, int fin);
    void note_vpn_answer(const record_t& inst, bool carries);
    bool write_vpn(const record_t& inst, const packet_t& packet);
    void write_vpn_lossless(const record_t& inst);
    void reopen_vpn_forwards();

    static void run_worker(std::shared_ptr<worker_gate_t> gate, record_t record);
    static bool connect_target(worker_gate_t& gate, const forward_detail& record, backend_t& backend);
    static bool open_target(worker_gate_t& gate, const forward_detail& record, backend_t& backend, const char* text);
    static bool create_vpn(worker_gate_t& gate, const forward_detail& record, backend_t& backend);
    static void finish_worker(worker_gate_t& gate, forward_detail& record, const backend_t& backend, bool done);

    bool own_loop_ = false;
    // The thread of an own loop frees it when the context was destroyed on that thread.
    std::shared_ptr<std::atomic<bool>> loop_orphaned_ = std::make_shared<std::atomic<bool>>(false);
    std::atomic<delivery_t> delivery_{delivery_t::classic};
    // The connection as the forwarding loop sees it; null until the context is bound.
    std::atomic<void*> transport_{nullptr};
    std::deque<uint64_t> writable_streams_;
    std::shared_ptr<scratch_t> scratch_;  // loop's thread; none until it is needed
    record_t unsent_;                     // link's thread; has datagrams of the current delivery
    // Streams that have carried an instance: they never carry another. Under table_lock.
    stream_set_t used_streams_;
    std::shared_ptr<worker_gate_t> gate_;
};

}  // namespace tandem

#endif  // TANDEM_FORWARD_ADVANCED_CONNECTION_CONTEXT_H
