// A client's carrier: it has a socket of its own, which goes back to the application when it has failed.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_CLIENT_LANE_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_CLIENT_LANE_H

#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

#include "platform/tndm/endpoint/client.h"

namespace tndm {

class client::lane final : public carrier {
  public:
    enum class stage { handshake, waiting, greeting, joining, joined };

    lane(const path_spec& on, int fd, uint32_t lane_number)
        : carrier(on.name, fd, sender_, false), number(lane_number), backup(on.backup), fd_(fd) {}
    ~lane() override {
        set_flow(nullptr);
        if (fd_ > 0) {
            ::close(fd_);
        }
    }
    int fd() const { return fd_; }
    // The socket is somebody else's from now on.
    int release_socket() {
        watcher.reset();
        return std::exchange(fd_, -1);
    }
    // The peer has not answered a single packet.
    bool unheard() const { return flow().traffic().packets_received == 0; }

    const uint32_t number;  // as the server is told; no other lane of this client has it
    const bool backup;
    stage at = stage::handshake;
    core::instant give_up = core::never;
    core::instant joined_at{};
    std::unique_ptr<io_watcher> watcher;

  private:
    int fd_;
    batch_sender sender_;
};

}  // namespace tndm

#endif
