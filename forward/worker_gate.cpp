#include "forward/worker_gate.h"

#include <algorithm>

namespace tandem {

void worker_gate_t::close() {
    const auto self = std::this_thread::get_id();
    std::unique_lock guard(lock_);
    context_ = nullptr;
    left_.wait(guard,
               [&] { return std::all_of(inside_.begin(), inside_.end(), [&](const auto& id) { return id == self; }); });
}

bool worker_gate_t::admit() {
    std::lock_guard guard(lock_);
    if (workers_ >= most_workers) return false;
    ++workers_;
    return true;
}

void worker_gate_t::dismiss() {
    std::lock_guard guard(lock_);
    --workers_;
}

advanced_connection_context_t* worker_gate_t::enter() {
    std::lock_guard guard(lock_);
    if (context_) inside_.push_back(std::this_thread::get_id());
    return context_;
}

void worker_gate_t::leave() {
    std::lock_guard guard(lock_);
    inside_.erase(std::find(inside_.begin(), inside_.end(), std::this_thread::get_id()));
    left_.notify_all();
}

}  // namespace tandem
