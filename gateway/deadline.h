#ifndef TANDEM_GATEWAY_DEADLINE_H
#define TANDEM_GATEWAY_DEADLINE_H

#include <cstdint>
#include <functional>
#include <utility>

#include "link/tloop.h"

namespace tandem {

// Calls `expired` once on the loop's thread, `microseconds` after construction, unless cancelled or destroyed before.
// May be made, cancelled and destroyed on any thread, also from inside `expired`, as long as the loop lives.
class deadline_t {
  public:
    deadline_t(st_tloop_t* loop, uint64_t microseconds, std::function<void()> expired)
        : loop_(loop), expired_(std::move(expired)) {
        loop_->ops->enter(loop_);
        timer_ = loop_->ops->timer_create(loop_, &deadline_t::on_timer, microseconds, 0, this);
        if (timer_ != nullptr) loop_->ops->timer_start(loop_, timer_);
        loop_->ops->leave(loop_);
    }
    deadline_t(const deadline_t&) = delete;
    deadline_t& operator=(const deadline_t&) = delete;
    ~deadline_t() { cancel(); }

    void cancel() {
        loop_->ops->enter(loop_);
        if (timer_ != nullptr) loop_->ops->timer_destroy(loop_, timer_);
        timer_ = nullptr;
        loop_->ops->leave(loop_);
    }

  private:
    static void on_timer(st_tloop_t*, void*, void* user) {
        auto* self = static_cast<deadline_t*>(user);
        // Runs from a copy: `expired` may destroy this object.
        const std::function<void()> expired = self->expired_;
        expired();
    }

    st_tloop_t* loop_;
    void* timer_ = nullptr;
    std::function<void()> expired_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_DEADLINE_H
