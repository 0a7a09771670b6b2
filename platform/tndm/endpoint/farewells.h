// Goodbyes that are said until they must have been heard.
//
// A server cannot open a subflow, and on one whose window a dark path has filled it can ask for nothing either: only a
// goodbye is never held back. Said over and over, it reaches the client as soon as the path is back, and the client
// opens another subflow.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_FAREWELLS_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_FAREWELLS_H

#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "platform/tndm/core/time.h"
#include "platform/tndm/udp/address.h"

namespace tndm {

class farewells {
  public:
    // Takes a closing datagram that has been sent just now. The oldest goes when there are too many.
    void add(std::vector<uint8_t> datagram, const endpoint& local, const endpoint& remote, core::instant now) {
        if (waiting_.size() == most) {
            waiting_.pop_front();
        }
        waiting_.push_back({std::move(datagram), local, remote, repeats, now + interval});
    }
    // Each is repeated once an interval, so the front is always the next one due.
    core::instant deadline() const { return waiting_.empty() ? core::never : waiting_.front().due; }
    // Calls `send(local, remote, datagram)` for those that are due.
    template <class Send>
    void repeat(core::instant now, Send send) {
        while (deadline() <= now) {
            farewell next = std::move(waiting_.front());
            waiting_.pop_front();
            send(next.local, next.remote, next.datagram);
            if (--next.left > 0) {
                next.due = now + interval;
                waiting_.push_back(std::move(next));
            }
        }
    }

  private:
    static constexpr size_t most = 256;
    static constexpr core::duration interval = std::chrono::milliseconds(200);
    static constexpr unsigned repeats = 150;  // half a minute: a darker path is the client's to notice

    struct farewell {
        std::vector<uint8_t> datagram;
        endpoint local;
        endpoint remote;
        unsigned left;
        core::instant due;
    };
    std::deque<farewell> waiting_;
};

}  // namespace tndm

#endif
