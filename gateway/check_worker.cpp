#include "gateway/check_worker.h"

#include <utility>

namespace tandem {

check_worker_t::check_worker_t(st_tloop_t* loop) : loop_(loop) {
    loop_->ops->enter(loop_);
    done_async_ = loop_->ops->async_create(loop_, on_done, this);
    if (done_async_ != nullptr) loop_->ops->async_start(loop_, done_async_);
    loop_->ops->leave(loop_);
    thread_ = std::thread(&check_worker_t::run, this);
}

check_worker_t::~check_worker_t() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
    loop_->ops->enter(loop_);
    if (done_async_ != nullptr) loop_->ops->async_destroy(loop_, done_async_);
    loop_->ops->leave(loop_);
}

bool check_worker_t::check(std::shared_ptr<const credentials_t> credentials, presented_t client, bool first,
                           result_t result) {
    {
        const std::lock_guard lock(mutex_);
        std::deque<job_t>& line = first ? first_ : waiting_;
        if (done_async_ == nullptr || line.size() + done_.size() >= most_waiting) return false;
        line.push_back({std::move(credentials), std::move(client), std::move(result), std::nullopt});
    }
    changed_.notify_all();
    return true;
}

void check_worker_t::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return stopping_ || !first_.empty() || !waiting_.empty(); });
        if (stopping_) return;
        std::deque<job_t>& line = first_.empty() ? waiting_ : first_;
        job_t job = std::move(line.front());
        line.pop_front();
        lock.unlock();
        job.admission = job.credentials->check(job.client);
        lock.lock();
        done_.push_back(std::move(job));
        lock.unlock();
        loop_->ops->async_send(loop_, done_async_);
        lock.lock();
    }
}

void check_worker_t::tell() {
    std::deque<job_t> done;
    {
        const std::lock_guard lock(mutex_);
        done.swap(done_);
    }
    for (job_t& job : done)
        job.result(std::move(job.admission));
}

void check_worker_t::on_done(st_tloop_t*, void*, void* user) {
    static_cast<check_worker_t*>(user)->tell();
}

}  // namespace tandem
