#ifndef TANDEM_GATEWAY_GATEWAY_CONTEXT_H
#define TANDEM_GATEWAY_GATEWAY_CONTEXT_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gateway/deadline.h"
#include "gateway/gateway.h"
#include "gateway/guarded_context.h"
#include "gateway/vpn_host.h"

namespace tandem {

// The server's side of one connection: forwarding for a client that the gateway has let in, nothing for anybody else.
// A stranger has one control message, the handshake, and is refused when it sends anything else before the answer; it
// loses the connection when it is not authorised within `authorize_within_us`, or `leave_within_us` after it was
// refused. The answer comes when the credentials have been checked, off the loop. To be made with std::make_shared.
class gateway_context_t : public guarded_context_t, public std::enable_shared_from_this<gateway_context_t> {
  public:
    static constexpr uint64_t authorize_within_us = 10'000'000;
    // A client reads why, and leaves by itself.
    static constexpr uint64_t leave_within_us = 3'000'000;

    // `connection` tells where the stranger is. Null when there are too many of them.
    static std::shared_ptr<gateway_context_t> make(std::shared_ptr<gateway_t> gateway, void* connection);
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
    void break_off(const char* what) override;

  private:
    void take_handshake(packet_t& packet);
    void answer(const verdict_t& verdict, const std::string& machine);
    void turn_away(refusals_t::why_t why, const std::string& what, int code, const std::string& reason);

    std::shared_ptr<gateway_t> gateway_;
    std::shared_ptr<void> stranger_;  // its place among the strangers, as long as it is one
    std::shared_ptr<void> link_;      // its place among its client's connections, from then on
    bool asked_ = false;
    bool confirmed_ = false;
    admission_t admission_;
    std::string client_machine_;
    std::shared_ptr<vpn_host_t> vpn_host_;
    std::optional<deadline_t> deadline_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_GATEWAY_CONTEXT_H
