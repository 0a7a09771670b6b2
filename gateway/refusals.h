#ifndef TANDEM_GATEWAY_REFUSALS_H
#define TANDEM_GATEWAY_REFUSALS_H

#include <array>
#include <cstdint>
#include <mutex>
#include <string>

namespace tandem {

// Counts what was refused, and prints at most a line a second about it on standard output. Any thread.
class refusals_t {
  public:
    enum why_t {
        target,
        stream_limit,
        instance_limit,
        worker_limit,
        request_rate,
        queue_limit,
        strangers,
        protocol,
        credentials,
        attempts,
        vpn,
        link_limit,
        kinds
    };

    // `who` and `what` may be a peer's words.
    void count(why_t why, const std::string& who, const std::string& what = {});
    std::array<uint64_t, kinds> counts() const;

  private:
    mutable std::mutex mutex_;
    std::array<uint64_t, kinds> counts_{};
    uint64_t untold_ = 0;
    int64_t told_us_ = 0;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_REFUSALS_H
