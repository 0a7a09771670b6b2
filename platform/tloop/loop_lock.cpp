#include "platform/tloop/loop_lock.h"

namespace tloop {

void loop_lock::lock() {
    // Only the owner itself can find its own id here, so a stale value never looks like ownership.
    if (owner_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
        ++levels_;
        return;
    }
    wait_for_turn();
    levels_ = 1;
}

void loop_lock::unlock() {
    if (--levels_ == 0) pass_on();
}

unsigned loop_lock::suspend() {
    const unsigned levels = levels_;
    levels_ = 0;
    pass_on();
    return levels;
}

void loop_lock::resume(unsigned levels) {
    wait_for_turn();
    levels_ = levels;
}

void loop_lock::wait_for_turn() {
    {
        std::unique_lock<std::mutex> guard(mutex_);
        const uint64_t ticket = next_ticket_++;
        turn_.wait(guard, [&] { return serving_ == ticket; });
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

void loop_lock::pass_on() {
    owner_.store(std::thread::id(), std::memory_order_relaxed);
    // Notified under the mutex: whoever is served next may delete this lock.
    const std::lock_guard<std::mutex> guard(mutex_);
    ++serving_;
    if (serving_ != next_ticket_) turn_.notify_all();
}

}  // namespace tloop
