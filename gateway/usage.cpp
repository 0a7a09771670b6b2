#include "gateway/usage.h"

#include <utility>

namespace tandem {

usage_t::usage_t(const share_t& share, std::shared_ptr<usage_t> whole)
    : limit_{share.streams, share.instances, share.workers, share.queued_bytes, share.links},
      requests_(share.requests_per_second),
      whole_(std::move(whole)) {}

bool usage_t::take(what_t what, uint64_t amount) {
    std::atomic<uint64_t>& used = used_[what];
    uint64_t now = used.load(std::memory_order_relaxed);
    do {
        if (amount > limit_[what] || now > limit_[what] - amount) return false;
    } while (!used.compare_exchange_weak(now, now + amount, std::memory_order_relaxed));
    if (!whole_ || whole_->take(what, amount)) return true;
    used.fetch_sub(amount, std::memory_order_relaxed);
    return false;
}

void usage_t::give(what_t what, uint64_t amount) {
    used_[what].fetch_sub(amount, std::memory_order_relaxed);
    if (whole_) whole_->give(what, amount);
}

bool usage_t::take_request(int64_t now_us) {
    {
        const std::lock_guard lock(mutex_);
        if (!requests_.take(now_us)) return false;
    }
    return !whole_ || whole_->take_request(now_us);
}

std::shared_ptr<void> usage_t::hold(const std::shared_ptr<usage_t>& usage, what_t what) {
    if (!usage->take(what)) return nullptr;
    return {static_cast<void*>(usage.get()), [usage, what](void*) { usage->give(what); }};
}

}  // namespace tandem
