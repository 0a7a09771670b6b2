#ifndef TANDEM_PLATFORM_TLOOP_LOOP_LOCK_H
#define TANDEM_PLATFORM_TLOOP_LOOP_LOCK_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace tloop {

/** A recursive lock that is handed over in the order of asking.
 *
 * The loop's thread gives the lock up for a few microseconds a round and wants it back at once; with a plain mutex it
 * would mostly win, and a thread that waits to enter a busy loop could starve. Here it queues behind whoever asked
 * before it.
 *
 * Every function is safe from any thread; `unlock`, `last_level` and `suspend` belong to the thread that holds the
 * lock.
 */
class loop_lock {
  public:
    loop_lock() = default;
    loop_lock(const loop_lock&) = delete;
    loop_lock& operator=(const loop_lock&) = delete;

    void lock();
    /** Gives one level back. The lock itself may be gone by the time this returns, if its next holder deletes it. */
    void unlock();
    /** Whether `unlock` would let others in. */
    bool last_level() const { return levels_ == 1; }

    /** Gives all levels back and says how many there were. */
    unsigned suspend();
    /** Takes the lock again with as many levels as `suspend` gave back. */
    void resume(unsigned levels);

  private:
    void wait_for_turn();
    void pass_on();

    std::atomic<std::thread::id> owner_{};
    unsigned levels_ = 0; /* belongs to the owner */

    std::mutex mutex_;
    std::condition_variable turn_;
    uint64_t next_ticket_ = 0; /* guarded by mutex_ */
    uint64_t serving_ = 0;     /* guarded by mutex_ */
};

}  // namespace tloop

#endif /* TANDEM_PLATFORM_TLOOP_LOOP_LOCK_H */
