#ifndef TANDEM_GATEWAY_GUARDED_CONTEXT_H
#define TANDEM_GATEWAY_GUARDED_CONTEXT_H

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "forward/advanced_connection_context.h"
#include "forward/stream_set.h"
#include "gateway/listening_forward.h"
#include "gateway/refusals.h"
#include "gateway/target_rules.h"
#include "gateway/usage.h"

namespace tandem {

// The rules that hold just now; contexts share it. Any thread.
class rule_book_t {
  public:
    explicit rule_book_t(target_rules_t rules) : rules_(std::make_shared<target_rules_t>(std::move(rules))) {}

    std::shared_ptr<const target_rules_t> get() const {
        const std::lock_guard lock(mutex_);
        return rules_;
    }
    // For new requests; what is open already stays.
    void set(target_rules_t rules) {
        auto fresh = std::make_shared<const target_rules_t>(std::move(rules));
        const std::lock_guard lock(mutex_);
        rules_.swap(fresh);
    }

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<const target_rules_t> rules_;
};

// One end of a connection, whose peer may only open what the rules allow and only as much as the limits do. At a limit
// the stream that goes beyond it is ended; nothing else suffers. Lossless. Nobody is served before `let_in`, and until
// then the marker and one short message is all that a peer may send, however it cuts them: one that sends more loses
// its connection. (A server that opens a stream too early loses the stream.)
//
// Needs the link's loop for forwarding. A derived class calls stop_forwarding in its destructor.
class guarded_context_t : public advanced_connection_context_t {
  public:
    struct guard_t {
        std::shared_ptr<rule_book_t> rules;
        std::shared_ptr<refusals_t> refusals;
    };

    guarded_context_t(st_tloop_t* link_loop, const std::string& i, const std::string& c, const std::string& t,
                      const std::string& m, guard_t guard);

    std::shared_ptr<packet_t> on_received_stream_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet, bool skip,
                                                        int fin, bool& handled) override;
    bool on_request(const request_t& request, permits_t& permits) override;
    bool on_target_resolved(const request_t& request, const sockaddr_storage& address) override;
    void reset(void* instance, void* connection, st_tloop_t* loop, uint64_t status_interval,
               const std::string& alpn) override;

  protected:
    // From now on the peer is served, under this name and on this account. Once.
    void let_in(const std::string& peer, std::shared_ptr<usage_t> usage, uint32_t frame_bytes);
    // Opens the application's listeners for this connection; descriptors stay open behind it.
    void serve(const std::vector<listening_forward_t>& listeners);
    bool is_let_in() const { return usage_ != nullptr; }
    // Who is not let in has sent what it may not. Ends the connection.
    virtual void break_off(const char* what);
    // From now on nothing is taken but the end of the peer's first stream.
    void take_no_more() { turned_away_ = true; }
    bool is_turned_away() const { return turned_away_; }
    const std::string& peer() const { return peer_; }
    void refuse(refusals_t::why_t why, const std::string& what = {}) const {
        guard_.refusals->count(why, peer_.empty() ? "a stranger" : peer_, what);
    }
    // Whether the peer may ask for interfaces; on_create_vpn_interface decides which.
    virtual bool serves_vpn() const { return false; }

  private:
    // Gives back what it has taken.
    class open_streams_t {
      public:
        ~open_streams_t() { clear(); }
        bool add(const std::shared_ptr<usage_t>& usage, uint64_t id);
        bool contains(uint64_t id) const { return ids_.contains(id); }
        void remove(uint64_t id);
        void clear();

      private:
        std::shared_ptr<usage_t> usage_;
        std::unordered_set<uint64_t> ids_;
    };

    // What is booked for frames that are not complete yet. Gives it back.
    class half_frames_t {
      public:
        ~half_frames_t() { clear(); }
        bool keep(const std::shared_ptr<usage_t>& usage, uint64_t id, uint64_t bytes);
        void clear();

      private:
        std::shared_ptr<usage_t> usage_;
        std::unordered_map<uint64_t, uint64_t> booked_;  // by stream, bytes
    };

    bool admit(uint64_t stream_id, uint32_t bytes, int fin);
    bool admit_of_stranger(uint64_t stream_id, uint32_t bytes);
    bool keep_partial(uint64_t stream_id, uint64_t bytes);
    target_t to_target(const request_t& request) const;

    const guard_t guard_;
    // Set before the first request, so that workers may read them.
    std::string peer_;
    std::shared_ptr<usage_t> usage_;
    uint64_t first_ = no_stream;   // of the peer's streams
    uint64_t stranger_bytes_ = 0;  // taken before it was let in
    bool turned_away_ = false;
    open_streams_t open_;  // the peer's other streams
    half_frames_t half_frames_;
    stream_set_t seen_;  // streams of the peer that were open or refused: what follows on them is no request
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_GUARDED_CONTEXT_H
