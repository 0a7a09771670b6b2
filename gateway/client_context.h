#ifndef TANDEM_GATEWAY_CLIENT_CONTEXT_H
#define TANDEM_GATEWAY_CLIENT_CONTEXT_H

#include <cstdint>
#include <string>
#include <vector>

#include "gateway/deadline.h"
#include "gateway/guarded_context.h"

namespace tandem {

// What a client presents in the handshake.
struct identity_t {
    std::string id;
    std::string credential;
    std::string software;
    std::string machine;
};

// Hears what becomes of a client's connections, on the link's loop thread. Outlives the link.
class client_observer_t {
  public:
    virtual ~client_observer_t() = default;

    // The server has let this client in, and the forwards are being opened.
    virtual void on_authorized() = 0;
    // The server has refused this client and closes the connection. `message` is the server's: not to be printed as it
    // is.
    virtual void on_refused(int code, const std::string& message) = 0;
    // A connection is gone, authorised or not; the transport makes the next one by itself.
    virtual void on_disconnected(bool was_authorized) = 0;
    // See advanced_connection_context_t.
    virtual void on_vpn_answered(int /*fd*/, bool /*carries*/) {}
};

// The client's side of one connection. Once authorised it serves the application's listening sockets with lossless
// forwarding. The sockets stay the application's, so that the next connection takes them up where this one left them.
// The server may open here what the rules allow: without rules nothing. A server that does not answer the handshake
// within `answer_within_us` loses the connection.
class client_context_t : public guarded_context_t {
  public:
    static constexpr uint64_t answer_within_us = 15'000'000;

    client_context_t(st_tloop_t* link_loop, const identity_t& identity, std::vector<listening_forward_t> to_forward,
                     client_observer_t& observer, guard_t guard = denying_guard());
    // As in gateway_context_t.
    ~client_context_t() override { stop_forwarding(); }

    // Denies the server everything.
    static guard_t denying_guard();

    void on_authorize_acked(int code, const std::string& message) override;
    void on_destroy() override;
    void on_vpn_answered(int fd, bool carries) override { observer_.on_vpn_answered(fd, carries); }

  private:
    std::vector<listening_forward_t> to_forward_;
    client_observer_t& observer_;
    deadline_t deadline_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_CLIENT_CONTEXT_H
