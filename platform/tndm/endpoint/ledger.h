// What every thread may know of a connection at once: which streams may be written, how much of each waits, how its
// paths are.
//
// The loop's thread keeps it true; other threads ask and book. One mutex, under which nothing else is locked or called.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_LEDGER_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_LEDGER_H

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "link/tndm.h"
#include "platform/tndm/core/bundle.h"
#include "platform/tndm/endpoint/mailbox.h"

namespace tndm {

class ledger {
  public:
    static constexpr uint64_t no_stream = ~uint64_t{0};

    ledger(core::role own_role, std::string alpn, std::array<uint64_t, 2> credit, std::shared_ptr<mailbox> commands);

    const std::string& alpn() const { return alpn_; }
    mailbox& commands() { return *commands_; }

    // --- any thread ---
    // Reserves a stream of this side; no_stream when the peer allows no more, or the connection is over.
    uint64_t open_stream(bool one_way);
    // Books bytes that are about to be queued; false when the stream may not be written.
    bool book(uint64_t stream, uint64_t bytes, bool last);
    uint64_t queued() const;
    uint64_t sent() const;
    uint64_t backlog(uint64_t stream) const;
    // Notes that somebody waits for the backlog to come down to `low_water`; 1 when it already is (nothing is noted
    // then), 0 when noted, -1 for a stream that cannot be written.
    int request_writable(uint64_t stream, uint64_t low_water);
    bool open() const;
    std::vector<st_tndm_path_info_t> paths() const;
    // Of the first carrier; empty when there has been none yet.
    std::string peer_address() const;

    // --- the loop's thread ---
    void set_credit(unsigned kind, uint64_t count);
    // The peer has opened a stream that this side may write.
    void peer_opened(uint64_t stream);
    // The peer reads no more of it: it may not be written any more.
    void stream_stopped(uint64_t stream);
    void stream_over(uint64_t stream);
    // Books what went out; gives the streams that somebody waits for and that have come down far enough.
    std::vector<uint64_t> progress(std::span<const core::bundle::progress> sent);
    void set_paths(std::vector<st_tndm_path_info_t> paths);
    void set_peer_address(std::string address);
    // The connection is over: everything fails from now on.
    void shut();

  private:
    struct entry {
        uint64_t backlog = 0;
        bool ended = false;
        std::optional<uint64_t> wanted;  // low water of a pending request
    };

    const core::role role_;
    const std::string alpn_;
    const std::shared_ptr<mailbox> commands_;

    mutable std::mutex mutex_;  // guards what follows
    bool open_ = true;
    std::array<uint64_t, 2> next_index_{};
    std::array<uint64_t, 2> credit_;
    std::unordered_map<uint64_t, entry> streams_;
    uint64_t queued_ = 0;
    uint64_t sent_ = 0;
    std::vector<st_tndm_path_info_t> paths_;
    std::string peer_address_;
};

}  // namespace tndm

#endif
