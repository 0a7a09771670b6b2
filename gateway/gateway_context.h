#ifndef TANDEM_GATEWAY_GATEWAY_CONTEXT_H
#define TANDEM_GATEWAY_GATEWAY_CONTEXT_H

#include <memory>
#include <string>

#include "forward/advanced_connection_context.h"
#include "gateway/authorizer.h"
#include "gateway/deadline.h"

namespace tandem {

// The server's side of one connection: lossless forwarding for a client that the authorizer has let in, nothing for
// anybody else. A stream of a client that is not authorised is ended at once, and a connection that is not authorised
// within `authorize_within_us` is closed, so that strangers cannot hold the server's connections.
class gateway_context_t : public advanced_connection_context_t {
  public:
    static constexpr uint64_t authorize_within_us = 15'000'000;

    // `link_loop` is the link's loop; `authorizer` is shared by the connections.
    gateway_context_t(st_tloop_t* link_loop, std::shared_ptr<authorizer_t> authorizer);
    // A worker may be in one of the hooks: it must not meet a half-destroyed object.
    ~gateway_context_t() override { stop_forwarding(); }

    bool on_authorize(const std::string& id, const std::string& credential, const std::string& software,
                      const std::string& machine, int& code, std::string& message) override;
    std::shared_ptr<packet_t> on_received_stream_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet, bool skip,
                                                        int fin, bool& handled) override;
    void on_destroy() override;
    // The machine that the client says it is; empty before it is authorised. Not to be printed as it is. Loop's thread.
    const std::string& client_machine() const { return client_machine_; }

  private:
    std::string client_machine_;
    std::shared_ptr<authorizer_t> authorizer_;
    deadline_t deadline_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_GATEWAY_CONTEXT_H
