#ifndef TANDEM_GATEWAY_USAGE_H
#define TANDEM_GATEWAY_USAGE_H

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "gateway/token_bucket.h"

namespace tandem {

// How much one client, or all together, may have at once.
struct share_t {
    uint64_t streams;              // open: not ended by the peer
    uint64_t instances;            // forwarded connections and flows
    uint64_t workers;              // targets that are being resolved and opened
    uint64_t requests_per_second;  // new instances
    uint64_t queued_bytes;         // received, not yet written to their targets
    uint64_t links = 64;           // authorised connections
};

struct limits_t {
    uint32_t frame_bytes = 1 << 20;  // the longest body of a frame
    uint64_t strangers = 512;        // connections that are not authorised (yet)
    uint64_t source_strangers = 32;  // of these, from one source (see source_of)
    share_t client{16'384, 16'384, 1'024, 4'000, uint64_t{192} << 20};
    share_t total{65'536, 65'536, 2'048, 16'000, uint64_t{512} << 20, 1'024};
};

// What is in use of a share, and of the one that it is a part of. Any thread.
class usage_t {
  public:
    enum what_t { streams, instances, workers, queued_bytes, links, kinds };

    explicit usage_t(const share_t& share, std::shared_ptr<usage_t> whole = nullptr);
    usage_t(const usage_t&) = delete;
    usage_t& operator=(const usage_t&) = delete;

    // False when there is no room for so much, here or in the whole; nothing is taken then.
    bool take(what_t what, uint64_t amount = 1);
    void give(what_t what, uint64_t amount = 1);
    // One more new instance.
    bool take_request(int64_t now_us);
    uint64_t used(what_t what) const { return used_[what]; }

    // Takes, and gives back when the last copy of the result goes; null when there is no room.
    static std::shared_ptr<void> hold(const std::shared_ptr<usage_t>& usage, what_t what);

  private:
    const std::array<uint64_t, kinds> limit_;
    std::array<std::atomic<uint64_t>, kinds> used_{};
    std::mutex mutex_;  // guards requests_; that of the whole is taken last
    token_bucket_t requests_;
    const std::shared_ptr<usage_t> whole_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_USAGE_H
