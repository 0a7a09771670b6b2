// A receive window that grows with the bandwidth-delay product: it doubles when it is used up within two round trips,
// or when the peer has come close to its end while bytes wait behind a hole. (A hole on a slow path stays open for one
// of that path's round trips, or two; what the fast ones could deliver meanwhile is what the window has to hold.)
#ifndef TANDEM_PLATFORM_TNDM_CORE_FLOW_WINDOW_H
#define TANDEM_PLATFORM_TNDM_CORE_FLOW_WINDOW_H

#include <algorithm>
#include <cstdint>

#include "platform/tndm/core/time.h"

namespace tndm::core {

class flow_window {
  public:
    flow_window(uint64_t first, uint64_t max) : size_(first), max_(std::max(first, max)), granted_(first) {}

    // What the peer may send in all.
    uint64_t granted() const { return granted_; }

    // Told how much has been consumed in all. True when a new grant is worth telling the peer: a quarter of the window
    // is free again.
    bool consumed(uint64_t total, instant now, duration rtt) {
        if (granted_ >= total + size_ - size_ / 4) {
            return false;
        }
        if (now - last_grant_ < 2 * rtt && size_ < max_) {
            size_ = std::min(2 * size_, max_);
        }
        last_grant_ = now;
        granted_ = std::max(granted_, total + size_);
        return true;
    }

    // Told how much the peer has used of its grants. True when the window has grown.
    bool used(uint64_t total) {
        if (granted_ - total > size_ / 4 || size_ == max_) {
            return false;
        }
        const uint64_t more = std::min(size_, max_ - size_);
        size_ += more;
        granted_ += more;
        return true;
    }

  private:
    uint64_t size_;
    uint64_t max_;
    uint64_t granted_;
    instant last_grant_{};
};

}  // namespace tndm::core

#endif
