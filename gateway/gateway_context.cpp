#include "gateway/gateway_context.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "gateway/ip_network.h"
#include "link/tndm.h"

namespace tandem {
namespace {

// The mark among an interface's options that they have been looked at.
constexpr const char* admitted = " admitted";

}  // namespace

std::shared_ptr<gateway_context_t> gateway_context_t::make(std::shared_ptr<gateway_t> gateway) {
    auto stranger = gateway->admit_stranger();
    return stranger ? std::make_shared<gateway_context_t>(std::move(gateway), std::move(stranger)) : nullptr;
}

gateway_context_t::gateway_context_t(std::shared_ptr<gateway_t> gateway, std::shared_ptr<void> stranger)
    : guarded_context_t(gateway->loop(), "", "", "", "", gateway->guard()),
      gateway_(std::move(gateway)),
      stranger_(std::move(stranger)),
      deadline_(gateway_->loop(), authorize_within_us, [this] { force_close(); }) {}

gateway_context_t::~gateway_context_t() {
    stop_forwarding();
    gateway_->detach(*this);
}

std::shared_ptr<packet_t> gateway_context_t::on_received_control_packet(uint64_t stream_id,
                                                                        std::shared_ptr<packet_t> packet, bool skip,
                                                                        int fin, bool& handled) {
    if (is_authorized()) {
        return guarded_context_t::on_received_control_packet(stream_id, std::move(packet), skip, fin, handled);
    }
    handled = true;
    if (closed != 0) return nullptr;
    // Its control stream has ended, and the base ends the connection.
    if (skip && fin != 0) return nullptr;
    handshake_t shown;
    if (asked_) return break_off("a second message before the first one was answered");
    if (skip || !packet || !read_handshake(*packet, shown)) return break_off("no handshake");
    asked_ = true;
    const std::weak_ptr<gateway_context_t> self = weak_from_this();
    gateway_->doorkeeper().ask({shown.i, shown.c, shown.t, shown.m}, source(),
                               [self, machine = shown.m](const verdict_t& verdict) {
                                   if (const auto context = self.lock()) context->answer(verdict, machine);
                               });
    return nullptr;
}

std::shared_ptr<packet_t> gateway_context_t::break_off(const char* what) {
    refuse(refusals_t::protocol, what);
    force_close();
    return nullptr;
}

void gateway_context_t::answer(const verdict_t& verdict, const std::string& machine) {
    if (closed != 0) return;
    if (!verdict.admission) {
        refuse(verdict.code == verdict_t::try_later ? refusals_t::attempts : refusals_t::credentials, source());
        send_packet(peer_control_stream_id, decide_handshake(false, verdict.code, verdict.reason, 0), 0);
        return;
    }
    admission_ = *verdict.admission;
    client_machine_ = machine;
    deadline_.cancel();
    stranger_.reset();
    let_in(admission_.client, gateway_->usage_of(admission_.client), gateway_->limits().frame_bytes);
    send_packet(peer_control_stream_id, decide_handshake(true, 0, "", 0), 0);
    gateway_->attach(*this);
}

// Where the client is, as far as attempts are counted together: its address, of IPv6 the network of its site.
std::string gateway_context_t::source() const {
    char text[64] = "";
    if (tndm_get_peer_address == nullptr || tndm_get_peer_address(connection, text, sizeof(text)) != 0) {
        return "somewhere";
    }
    text[std::strcspn(text, "%")] = 0;
    auto address = ip_network_t::parse(text);
    if (!address || address->family != AF_INET6) return text;
    address->prefix = 64;
    return address->base().text();
}

void gateway_context_t::drop_listeners(const std::vector<listening_forward_t>& listeners) {
    for (const listening_forward_t& listener : listeners)
        remove_forward(listener.fd);
}

// The answer to the handshake and a request travel on different streams, so the request could be there first.
void gateway_context_t::on_peer_path_updated(bool) {
    if (std::exchange(confirmed_, true)) return;
    gateway_->confirm(*this);
}

// The library would make an interface when this hook makes none. To refuse it for good the hook gives a descriptor that
// is no interface, and no name: set_if_options then ends the request.
int gateway_context_t::on_create_vpn_interface(uint64_t, std::multimap<std::string, std::string>& options,
                                               std::string& ifname, const std::string& mode) {
    std::string reason = "this gateway has no VPN";
    options.erase(admitted);
    if (vpn_host_ && vpn_host_->admit(peer(), mode, ifname, options, reason)) {
        options.emplace(admitted, "");
        return -1;
    }
    refuse(refusals_t::vpn, reason);
    ifname.clear();
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool gateway_context_t::set_if_options(const std::string& ifname, std::multimap<std::string, std::string>& options) {
    if (ifname.empty() || !vpn_host_ || options.erase(admitted) == 0) return false;
    std::string reason;
    if (vpn_host_->set_up(ifname, options, reason)) return true;
    refuse(refusals_t::vpn, reason);
    return false;
}

void gateway_context_t::on_destroy() {
    deadline_.cancel();
    advanced_connection_context_t::on_destroy();
    // Now, not in a later turn: the listeners that this connection has borrowed may go to another one.
    update_forwarding();
    gateway_->detach(*this);
}

}  // namespace tandem
