#ifndef TANDEM_GATEWAY_GATEWAY_CONTEXT_H
#define TANDEM_GATEWAY_GATEWAY_CONTEXT_H

#include <memory>
#include <string>
#include <vector>

#include "gateway/deadline.h"
#include "gateway/gateway.h"
#include "gateway/guarded_context.h"
#include "gateway/vpn_host.h"

namespace tandem {

// The server's side of one connection: forwarding for a client that the gateway has let in, nothing for anybody else.
// A stranger has one control message, the handshake, and loses the connection when it sends anything more before the
// answer, or is not authorised within `authorize_within_us`. The answer comes when the credentials have been checked,
// off the loop. To be made with std::make_shared.
class gateway_context_t : public guarded_context_t, public std::enable_shared_from_this<gateway_context_t> {
  public:
    static constexpr uint64_t authorize_within_us = 10'000'000;

    // Null when there are too many strangers.
    static std::shared_ptr<gateway_context_t> make(std::shared_ptr<gateway_t> gateway);
    gateway_context_t(std::shared_ptr<gateway_t> gateway, std::shared_ptr<void> stranger);
    // A worker may be in one of the hooks: it must not meet a half-destroyed object.
    ~gateway_context_t() override;

    // Who makes the interfaces that the client asks for; without one it gets none. To be called before the context is
    // bound.
    void set_vpn_host(std::shared_ptr<vpn_host_t> host) { vpn_host_ = std::move(host); }

    std::shared_ptr<packet_t> on_received_control_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet,
                                                         bool skip, int fin, bool& handled) override;
    int on_create_vpn_interface(uint64_t stream_id, std::multimap<std::string, std::string>& options,
                                std::string& ifname, const std::string& mode) override;
    bool set_if_options(const std::string& ifname, std::multimap<std::string, std::string>& options) override;
    void on_destroy() override;
    // The machine that the client says it is; empty before it is authorised. Not to be printed as it is. Loop's thread.
    const std::string& client_machine() const { return client_machine_; }

    // Whom the client has turned out to be. Loop's thread.
    const admission_t& admission() const { return admission_; }
    // For the gateway: these listeners lead to the client through this connection, or do so no more.
    void take_listeners(const std::vector<listening_forward_t>& listeners) { serve(listeners); }
    void drop_listeners(const std::vector<listening_forward_t>& listeners);
    // The client has shown that it knows that it was let in: what is opened at its side finds it ready.
    bool is_confirmed() const { return confirmed_; }
    void on_peer_path_updated(bool changed) override;

  protected:
    bool serves_vpn() const override { return vpn_host_ != nullptr; }

  private:
    std::shared_ptr<packet_t> break_off(const char* what);
    void answer(const verdict_t& verdict, const std::string& machine);
    std::string source() const;

    std::shared_ptr<gateway_t> gateway_;
    std::shared_ptr<void> stranger_;
    bool asked_ = false;
    bool confirmed_ = false;
    admission_t admission_;
    std::string client_machine_;
    std::shared_ptr<vpn_host_t> vpn_host_;
    deadline_t deadline_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_GATEWAY_CONTEXT_H
