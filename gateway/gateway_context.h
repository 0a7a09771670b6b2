#ifndef TANDEM_GATEWAY_GATEWAY_CONTEXT_H
#define TANDEM_GATEWAY_GATEWAY_CONTEXT_H

#include <memory>
#include <string>

#include "forward/advanced_connection_context.h"
#include "gateway/authorizer.h"
#include "gateway/deadline.h"
#include "gateway/vpn_host.h"

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

    // Who makes the interfaces that the client asks for; without one it gets none. To be called before the context is
    // bound.
    void set_vpn_host(std::shared_ptr<vpn_host_t> host) { vpn_host_ = std::move(host); }

    bool on_authorize(const std::string& id, const std::string& credential, const std::string& software,
                      const std::string& machine, int& code, std::string& message) override;
    std::shared_ptr<packet_t> on_received_stream_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet, bool skip,
                                                        int fin, bool& handled) override;
    int on_create_vpn_interface(uint64_t stream_id, std::multimap<std::string, std::string>& options,
                                std::string& ifname, const std::string& mode) override;
    bool set_if_options(const std::string& ifname, std::multimap<std::string, std::string>& options) override;
    void on_destroy() override;
    // The machine that the client says it is; empty before it is authorised. Not to be printed as it is. Loop's thread.
    const std::string& client_machine() const { return client_machine_; }

  private:
    std::string client_id_;  // workers read it; they exist only when the client is authorised
    std::string client_machine_;
    std::shared_ptr<vpn_host_t> vpn_host_;
    std::shared_ptr<authorizer_t> authorizer_;
    deadline_t deadline_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_GATEWAY_CONTEXT_H
