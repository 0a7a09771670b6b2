#ifndef TANDEM_GATEWAY_CHECK_WORKER_H
#define TANDEM_GATEWAY_CHECK_WORKER_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "gateway/credentials.h"
#include "link/tloop.h"

namespace tandem {

// Checks credentials on one thread of its own, one after the other, for a check is slow on purpose and costs memory.
// Made, asked and destroyed on the loop's thread (or while the loop is held); results come there.
class check_worker_t {
  public:
    using result_t = std::function<void(std::optional<admission_t>)>;
    static constexpr size_t most_waiting = 128;  // of each kind: a few seconds of work

    explicit check_worker_t(st_tloop_t* loop);
    check_worker_t(const check_worker_t&) = delete;
    check_worker_t& operator=(const check_worker_t&) = delete;
    // Waits for the check that is under way; results that were not told are dropped.
    ~check_worker_t();

    // `first`: before all that are not. False when too many wait; `result` is not called then.
    bool check(std::shared_ptr<const credentials_t> credentials, presented_t client, bool first, result_t result);

  private:
    struct job_t {
        std::shared_ptr<const credentials_t> credentials;
        presented_t client;
        result_t result;
        std::optional<admission_t> admission;
    };

    void run();
    void tell();
    static void on_done(st_tloop_t* loop, void* handle, void* user);

    st_tloop_t* loop_;
    void* done_async_ = nullptr;
    std::mutex mutex_;  // guards the queues and stopping_
    std::condition_variable changed_;
    std::deque<job_t> first_;
    std::deque<job_t> waiting_;
    std::deque<job_t> done_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_CHECK_WORKER_H
