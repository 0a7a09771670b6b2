#ifndef TANDEM_APP_CLIENT_FORWARDS_H
#define TANDEM_APP_CLIENT_FORWARDS_H

#include <list>
#include <string>
#include <vector>

#include "app/forward_options.h"
#include "app/listener.h"
#include "app/vpn_interface.h"
#include "gateway/client_context.h"

namespace tandem::app {

// The client's open sockets and interfaces. They outlive connections, which borrow them.
class client_forwards_t {
  public:
    // Throws failure_t.
    explicit client_forwards_t(const forwards_t& forwards);
    client_forwards_t(const client_forwards_t&) = delete;
    client_forwards_t& operator=(const client_forwards_t&) = delete;

    // For each new connection.
    const std::vector<listening_forward_t>& lent() const { return lent_; }
    // One line a forward: what leads where.
    const std::vector<std::string>& lines() const { return lines_; }
    // The server lets this client in: interfaces get their routes. Returns what went wrong.
    std::vector<std::string> connected();

  private:
    void open_ports(const std::vector<tcp_forward_t>& ports, const char* option, int32_t type);

    std::vector<listener_t> listeners_;
    std::list<vpn_interface_t> interfaces_;
    std::vector<listening_forward_t> lent_;
    std::vector<std::string> lines_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_CLIENT_FORWARDS_H
