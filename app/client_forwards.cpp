#include "app/client_forwards.h"

namespace tandem::app {

client_forwards_t::client_forwards_t(const forwards_t& forwards, const vpn_interface_t::tell_t& tell) {
    using context_t = advanced_connection_context_t;
    open_ports(forwards.tcp, "tcp", context_t::TYPE_TCP);
    open_ports(forwards.udp, "udp", context_t::TYPE_UDP);
    for (const vpn_forward_t& forward : forwards.vpn) {
        const vpn_interface_t& interface =
            interfaces_.emplace_back(forward.local, [tell](const std::string& fault) { tell("--vpn: " + fault); });
        lent_.push_back({interface.fd(), forward.remote, 0, context_t::TYPE_VPN});
        lines_.push_back("forwarding vpn " + interface.name());
    }
}

void client_forwards_t::open_ports(const std::vector<tcp_forward_t>& ports, const char* option, int32_t type) {
    for (const tcp_forward_t& forward : ports) {
        const bool tcp = type == advanced_connection_context_t::TYPE_TCP;
        const listener_t& listener = listeners_.emplace_back(forward.listen, tcp ? SOCK_STREAM : SOCK_DGRAM);
        lent_.push_back({listener.socket.fd(), forward.target.host, forward.target.port, type});
        lines_.push_back("forwarding " + std::string(option) + " " + listener.where.text() + " -> " +
                         forward.target.text());
    }
}

std::string client_forwards_t::name_of(int fd) const {
    for (const vpn_interface_t& interface : interfaces_) {
        if (interface.fd() == fd) return interface.name();
    }
    return {};
}

void client_forwards_t::connected(st_tloop_t* loop) {
    for (vpn_interface_t& interface : interfaces_)
        interface.connected(loop);
}

}  // namespace tandem::app
