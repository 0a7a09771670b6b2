// One tndm connection: a bundle, the carriers that are its lanes, and the application's end of it.
//
// Lives on the loop's thread. Callbacks into the application run from run_callbacks() only, so nothing of the transport
// is half done while one runs; they may call every function of the interface, which books in the ledger and posts into
// the mailbox.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_CONNECTION_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_CONNECTION_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "link/tndm.h"
#include "platform/tndm/core/bundle.h"
#include "platform/tndm/endpoint/carrier.h"
#include "platform/tndm/endpoint/ledger.h"
#include "platform/tndm/endpoint/path_book.h"
#include "platform/tndm/quic/control_message.h"

namespace tndm {

// The application's functions; null where it gave none.
struct application {
    void* instance = nullptr;  // handle
    tndm_connection_cb on_established = nullptr;
    tndm_connection_cb on_disconnected = nullptr;
    tndm_data_cb on_data = nullptr;
    tndm_create_path_cb create_path = nullptr;
    tndm_path_broken_cb path_broken = nullptr;
    tndm_statistics_cb statistics = nullptr;
    std::chrono::milliseconds statistics_interval{0};
    tndm_writable_cb on_writable = nullptr;
    tndm_problem_cb on_problem = nullptr;
};

class connection {
  public:
    struct setup {
        core::role role;
        control::bundle_id id;
        secret<32> join_secret;
        core::limits own;
        core::limits peer;
        std::chrono::seconds linger;  // how long it outlives its last working lane
        std::string alpn;
        const core::schedule& schedule = core::sooner_first();
    };
    connection(const setup& how, std::shared_ptr<mailbox> commands, core::instant now);
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    void* handle() const { return handle_; }
    const control::bundle_id& id() const { return id_; }
    const secret<32>& join_secret() const { return join_secret_; }
    const core::bundle& bundle() const { return bundle_; }

    // --- lanes ---
    // `may_send` as in subflow::attach; a `backup` carries only while no other lane works.
    void add(carrier& lane, bool may_send, bool backup, core::instant now);
    void remove(carrier& lane, core::instant now);
    const std::vector<carrier*>& carriers() const { return carriers_; }
    const core::lane* lane_of(const carrier& of) const { return bundle_.find_lane(of.flow().lane()); }

    // Since when no lane has answered; core::never while one does.
    core::instant orphan_since() const { return orphan_since_; }

    // --- the application's wishes ---
    void apply(command& asked, core::instant now);

    // --- the end ---
    // The peer is gone or has broken the rules: what has arrived is still delivered, then the application is told.
    void end(close_code code) {
        if (!ended_) {
            ended_ = code;
        }
    }
    const std::optional<close_code>& ended() const { return ended_; }
    // The application has been told, and nothing is left to be sent: the owner closes the carriers and forgets the
    // connection.
    bool finished(core::instant now) const;

    // --- passes ---
    void on_time(core::instant now);
    core::instant deadline() const;
    // Tells the application what has happened; stops early when `dead` becomes true. True when something was delivered.
    bool run_callbacks(const application& app, core::instant now, const bool& dead);
    // run_callbacks() has something to do that no input or deadline will announce.
    bool wants_callbacks() const { return !writable_.empty(); }
    // Lets the lanes pull, nearest first, and books what went out.
    void flush(const pass& p);
    void refresh_paths();
    // The list of paths itself has changed: the next flush tells it at once.
    void refresh_soon() { next_refresh_ = {}; }
    // Asked at each refresh for the paths that this side wants; without it the paths are those that there have been.
    using wishes_t = std::function<std::vector<path_book::wish>()>;
    void set_path_wishes(wishes_t wishes) { path_wishes_ = std::move(wishes); }

    core::instant scheduled = core::never;  // of deadline_set
    bool touched = false;                   // stands in the owner's list of connections to serve

  private:
    void tell_statistics(const application& app, core::instant now);
    void tell_disconnected(const application& app, core::instant now);
    st_tndm_connection_id_t id_record() const;
    void watch_lanes(core::instant now);
    path_book::lane_figures figures_of(const carrier& lane) const;

    const core::role role_;
    const control::bundle_id id_;
    const secret<32> join_secret_;
    const std::chrono::seconds linger_;
    core::bundle bundle_;
    std::shared_ptr<ledger> ledger_;
    void* handle_;
    std::vector<carrier*> carriers_;
    path_book paths_;
    wishes_t path_wishes_;

    bool announced_ = false;
    bool told_end_ = false;
    bool closed_by_application_ = false;
    std::optional<close_code> ended_;
    core::instant drain_until_ = core::never;   // closed by the application: what it queued may still go out until then
    core::instant orphan_since_ = core::never;  // no lane has answered since
    core::instant next_statistics_ = core::never;
    core::instant next_refresh_{};
    bool paths_outdated_ = false;  // something has happened since the paths' figures were told to the ledger
    core::delivery delivery_;
    std::vector<uint64_t> writable_;
    std::unordered_set<uint64_t> peer_streams_;  // of the peer's, those that the ledger knows
    std::array<uint64_t, 2> credit_told_{};
};

}  // namespace tndm

#endif
