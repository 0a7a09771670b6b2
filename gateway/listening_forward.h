#ifndef TANDEM_GATEWAY_LISTENING_FORWARD_H
#define TANDEM_GATEWAY_LISTENING_FORWARD_H

#include <cstdint>
#include <string>

#include "forward/advanced_connection_context.h"

namespace tandem {

// A listening TCP socket, a bound UDP socket or a tun/tap device of the application's, and what it is carried to.
// Connections borrow it.
struct listening_forward_t {
    int fd;
    std::string target_host;  // VPN: the options of the peer's interface
    uint16_t target_port;
    int32_t type = advanced_connection_context_t::TYPE_TCP;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_LISTENING_FORWARD_H
