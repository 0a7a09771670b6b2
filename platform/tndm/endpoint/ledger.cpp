#include "platform/tndm/endpoint/ledger.h"

#include <algorithm>
#include <utility>

namespace tndm {

ledger::ledger(core::role own_role, std::string alpn, std::array<uint64_t, 2> credit, std::shared_ptr<mailbox> commands)
    : role_(own_role), alpn_(std::move(alpn)), commands_(std::move(commands)), credit_(credit) {}

uint64_t ledger::open_stream(bool one_way) {
    const std::lock_guard lock(mutex_);
    const unsigned kind = one_way ? 1 : 0;
    if (!open_ || next_index_[kind] >= credit_[kind]) {
        return no_stream;
    }
    const uint64_t id = next_index_[kind]++ << 2 | (one_way ? 2U : 0U) | (role_ == core::role::server ? 1U : 0U);
    streams_.emplace(id, entry{});
    return id;
}

bool ledger::book(uint64_t stream, uint64_t bytes, bool last) {
    const std::lock_guard lock(mutex_);
    const auto found = streams_.find(stream);
    if (!open_ || found == streams_.end() || found->second.ended) {
        return false;
    }
    found->second.backlog += bytes;
    found->second.ended = last;
    queued_ += bytes;
    return true;
}

uint64_t ledger::queued() const {
    const std::lock_guard lock(mutex_);
    return queued_;
}

uint64_t ledger::sent() const {
    const std::lock_guard lock(mutex_);
    return sent_;
}

uint64_t ledger::backlog(uint64_t stream) const {
    const std::lock_guard lock(mutex_);
    const auto found = streams_.find(stream);
    return found == streams_.end() ? 0 : found->second.backlog;
}

int ledger::request_writable(uint64_t stream, uint64_t low_water) {
    const std::lock_guard lock(mutex_);
    const auto found = streams_.find(stream);
    if (!open_ || found == streams_.end() || found->second.ended) {
        return -1;
    }
    if (found->second.backlog <= low_water) {
        found->second.wanted.reset();
        return 1;
    }
    found->second.wanted = low_water;
    return 0;
}

bool ledger::open() const {
    const std::lock_guard lock(mutex_);
    return open_;
}

std::vector<st_tndm_path_info_t> ledger::paths() const {
    const std::lock_guard lock(mutex_);
    return paths_;
}

void ledger::set_credit(unsigned kind, uint64_t count) {
    const std::lock_guard lock(mutex_);
    credit_[kind] = count;
}

void ledger::peer_opened(uint64_t stream) {
    const std::lock_guard lock(mutex_);
    if (open_) {
        streams_.emplace(stream, entry{});
    }
}

void ledger::stream_stopped(uint64_t stream) {
    const std::lock_guard lock(mutex_);
    if (open_) {
        streams_[stream].ended = true;
    }
}

void ledger::stream_over(uint64_t stream) {
    const std::lock_guard lock(mutex_);
    streams_.erase(stream);
}

std::vector<uint64_t> ledger::progress(std::span<const core::bundle::progress> sent) {
    std::vector<uint64_t> writable;
    const std::lock_guard lock(mutex_);
    for (const auto& [stream, bytes] : sent) {
        sent_ += bytes;
        const auto found = streams_.find(stream);
        if (found == streams_.end()) {
            continue;
        }
        entry& of = found->second;
        of.backlog -= std::min(bytes, of.backlog);
        if (of.wanted && of.backlog <= *of.wanted) {
            of.wanted.reset();
            writable.push_back(stream);
        }
    }
    return writable;
}

void ledger::set_paths(std::vector<st_tndm_path_info_t> paths) {
    const std::lock_guard lock(mutex_);
    paths_.swap(paths);
}

std::string ledger::peer_address() const {
    const std::lock_guard lock(mutex_);
    return peer_address_;
}

void ledger::set_peer_address(std::string address) {
    const std::lock_guard lock(mutex_);
    peer_address_ = std::move(address);
}

void ledger::shut() {
    const std::lock_guard lock(mutex_);
    open_ = false;
    streams_.clear();
    paths_.clear();
}

}  // namespace tndm
