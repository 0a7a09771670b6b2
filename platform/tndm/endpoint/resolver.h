// Looks a host name up without holding the loop.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_RESOLVER_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_RESOLVER_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/tndm/endpoint/mailbox.h"
#include "platform/tndm/udp/address.h"

namespace tndm {

// Loop thread, except for what the look-up's own thread does to the shared answer. A look-up cannot be interrupted: its
// thread is detached, and holds nothing but the answer and the mailbox, both shared.
class resolver {
  public:
    explicit resolver(std::shared_ptr<mailbox> commands) : commands_(std::move(commands)) {}

    struct answer {
        std::vector<endpoint> found;  // the best of each family, the best first; empty on failure
        std::string error;            // one line
    };
    // Starts a look-up unless one is under way; a `resolved` command arrives in the mailbox when take() has something.
    // Numeric addresses are answered as well, only faster.
    void start(const std::string& host, uint16_t port);
    bool busy() const { return busy_; }
    answer take();

  private:
    struct shared {
        std::mutex mutex;
        answer result;
    };
    std::shared_ptr<mailbox> commands_;
    std::shared_ptr<shared> current_;
    bool busy_ = false;
};

}  // namespace tndm

#endif
