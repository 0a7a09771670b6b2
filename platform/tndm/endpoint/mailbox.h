// What other threads (and callbacks) ask of an instance, in the order in which they asked.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_MAILBOX_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_MAILBOX_H

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "link/tloop.h"
#include "platform/tndm/core/buffer.h"

namespace tndm {

struct command {
    enum class kind {
        queue,             // `bytes` on `stream` of `connection`; `flag`: its end
        pause,             // `stream` of `connection`; `flag`: paused or not
        stop,              // nobody reads `stream` of `connection` any more
        writable,          // tell that `stream` of `connection` is writable
        close_connection,  // `connection`
        keep_alive,        // `connection`, every `number` milliseconds
        add_path,          // `text`
        remove_path,       // `text`: its name
        resolved,          // the server's name has been looked up
    };
    kind what;
    void* connection = nullptr;
    uint64_t stream = 0;
    core::buffer bytes = {};
    bool flag = false;
    uint32_t number = 0;
    std::string text = {};
};

// Any thread. Locks: its own mutex only, and the loop's async_send beneath it, which takes no lock of ours.
class mailbox {
  public:
    // `async` wakes the loop that drains the box.
    void open(st_tloop_t* loop, void* async) {
        const std::lock_guard lock(mutex_);
        loop_ = loop;
        async_ = async;
    }
    // Nothing is accepted or woken any more.
    void close() {
        std::vector<command> dropped;
        const std::lock_guard lock(mutex_);
        async_ = nullptr;
        dropped.swap(commands_);
    }
    bool post(command&& asked) {
        const std::lock_guard lock(mutex_);
        if (async_ == nullptr) {
            return false;
        }
        commands_.push_back(std::move(asked));
        if (commands_.size() == 1) {
            loop_->ops->async_send(loop_, async_);
        }
        return true;
    }
    // Swaps the commands into `out`, which must be empty (its memory is reused).
    void drain(std::vector<command>& out) {
        const std::lock_guard lock(mutex_);
        out.swap(commands_);
    }
    // Wakes the loop although nothing was posted.
    void wake() {
        const std::lock_guard lock(mutex_);
        if (async_ != nullptr) {
            loop_->ops->async_send(loop_, async_);
        }
    }

  private:
    std::mutex mutex_;
    st_tloop_t* loop_ = nullptr;
    void* async_ = nullptr;
    std::vector<command> commands_;
};

}  // namespace tndm

#endif
