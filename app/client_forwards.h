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
    // `tell` hears what goes wrong with VPN forwards later, in one line. Throws failure_t.
    explicit client_forwards_t(const forwards_t& forwards, const vpn_interface_t::tell_t& tell = {});
    client_forwards_t(const client_forwards_t&) = delete;
    client_forwards_t& operator=(const client_forwards_t&) = delete;

    // For each new connection.
    const std::vector<listening_forward_t>& lent() const { return lent_; }
    // One line a forward: what leads where.
    const std::vector<std::string>& lines() const { return lines_; }
    // The interface's, of a VPN forward that was lent.
    std::string name_of(int fd) const;
    // The server lets this client in: interfaces get their routes. `loop` outlives this object.
    void connected(st_tloop_t* loop);

  private:
    void open_ports(const std::vector<tcp_forward_t>& ports, const char* option, int32_t type);

    std::vector<listener_t> listeners_;
    std::list<vpn_interface_t> interfaces_;
    std::vector<listening_forward_t> lent_;
    std::vector<std::string> lines_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_CLIENT_FORWARDS_H
