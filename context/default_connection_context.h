#ifndef TANDEM_CONTEXT_DEFAULT_CONNECTION_CONTEXT_H
#define TANDEM_CONTEXT_DEFAULT_CONNECTION_CONTEXT_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "common/export.h"
#include "context/connection_context.h"
#include "context/path_state.h"

namespace tandem {

// Adds the handshake and the path reports to a connection.
//
// The client presents four texts ("HSRQ"), which only the application gives a meaning; the server accepts or refuses
// them ("HSAK"). An authorised client then reports its paths ("PATH") every `status_interval`. A context stays
// authorised for good, even when it is bound again.
//
// The two path maps may be read from any thread under their mutexes, which are never held together; records in them
// never change.
class TANDEM_API default_connection_context_t : public connection_context_t {
  public:
    // The texts that a client presents, under the keys "i", "c", "t" and "m".
    default_connection_context_t(const std::string& i, const std::string& c, const std::string& t,
                                 const std::string& m);
    ~default_connection_context_t() override;

    std::shared_ptr<packet_t> on_create_initial_control_packet(uint64_t stream_id) override;
    std::shared_ptr<packet_t> on_received_control_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet,
                                                         bool skip, int fin, bool& handled) override;
    // Whether packets are dispatched and the handshake has succeeded.
    bool link_ready() override;
    void reset(void* instance, void* connection, st_tloop_t* loop, uint64_t status_interval,
               const std::string& alpn) override;
    void internal_cleanup() override;
    // Starts the path reports; nothing happens without a live connection, without an interval, or when they have
    // started. Loop's thread.
    void start_status_timer() override;
    // Any thread, with the restriction of force_close.
    void stop_status_timer() override;

    // Server: whether the client may use the link. A refusal should set `code` to something other than 0 (it travels as
    // 16 bits), for a client takes 0 for success.
    virtual bool on_authorize(const std::string& i, const std::string& c, const std::string& t, const std::string& m,
                              int& code, std::string& message);
    // Client: the server's answer; 0 is success.
    virtual void on_authorize_acked(int code, const std::string& message);
    // Server: a report is stored in `peer_paths`; `changed` when it holds a path.
    virtual void on_peer_path_updated(bool changed);
    virtual bool is_authorized();

    // Samples the paths into `local_paths` and reports them. Loop's thread.
    void update_local_path_info();
    static void timer_cb(st_tloop_t* loop, void* timer, void* user);

    using path_map_t = std::map<std::string, std::shared_ptr<path_state_t>>;
    // A copy of the peer's last report; the first `most` paths of it, for a peer may name many. Any thread.
    path_map_t peer_report(size_t most);

  protected:
    // What a client presents.
    struct handshake_t {
        std::string i;
        std::string c;
        std::string t;
        std::string m;
    };

    // Server: reads a handshake packet; false when it is something else.
    static bool read_handshake(packet_t& packet, handshake_t& handshake);
    // Server: takes the decision about a client and makes the packet that tells it. `fin`: the client has ended its
    // control stream.
    std::shared_ptr<packet_t> decide_handshake(bool accepted, int code, const std::string& message, int fin);

    std::string hs_i;
    std::string hs_c;
    std::string hs_t;
    std::string hs_m;
    std::atomic<void*> status_timer{nullptr};
    std::atomic<bool> authorized{false};
    uint64_t reserved_stream_a = no_stream;
    uint64_t reserved_stream_b = no_stream;
    std::recursive_mutex local_path_mutex;
    path_map_t local_paths;  // the last sample
    std::recursive_mutex peer_path_mutex;
    path_map_t peer_paths;  // the peer's last report
    // What of a report is kept; the rest is dropped. To be set before the context is bound.
    size_t most_peer_paths_ = SIZE_MAX;

  private:
    static handshake_t to_handshake(const message_variant_t::map_t& body);
    std::shared_ptr<packet_t> answer_handshake(const message_variant_t::map_t& body, int fin);
    std::shared_ptr<packet_t> finish_handshake(const message_variant_t::map_t& body, int fin);
    void store_peer_paths(packet_t& packet, const std::shared_ptr<packet_t::base_unpacker>& unpacker);
};

}  // namespace tandem

#endif  // TANDEM_CONTEXT_DEFAULT_CONNECTION_CONTEXT_H
