#include "gateway/gateway_context.h"

#include <fcntl.h>

#include <utility>

#include "gateway/strangers.h"
#include "link/tndm.h"

namespace tandem {
namespace {

// The mark among an interface's options that they have been looked at.
constexpr const char* admitted = " admitted";
// Of a client that is let in: a report of as many paths as a connection can have, with long names.
constexpr size_t longest_control = size_t{16} << 10;
constexpr size_t most_reported_paths = 32;

// Where the peer is, as far as strangers and attempts are counted together.
std::string source(void* connection) {
    char text[64] = "";
    if (tndm_get_peer_address == nullptr || tndm_get_peer_address(connection, text, sizeof(text)) != 0) {
        return "somewhere";
    }
    return source_of(text);
}

}  // namespace

std::shared_ptr<gateway_context_t> gateway_context_t::make(std::shared_ptr<gateway_t> gateway, void* connection) {
    auto stranger = gateway->admit_stranger(source(connection));
    return stranger ? std::make_shared<gateway_context_t>(std::move(gateway), std::move(stranger)) : nullptr;
}

gateway_context_t::gateway_context_t(std::shared_ptr<gateway_t> gateway, std::shared_ptr<void> stranger)
    : guarded_context_t(gateway->loop(), "", "", "", "", gateway->guard()),
      gateway_(std::move(gateway)),
      stranger_(std::move(stranger)) {
    most_peer_paths_ = most_reported_paths;
    deadline_.emplace(gateway_->loop(), authorize_within_us, [this] { force_close(); });
}

gateway_context_t::~gateway_context_t() {
    stop_forwarding();
    gateway_->detach(*this);
}

std::shared_ptr<packet_t> gateway_context_t::on_received_control_packet(uint64_t stream_id,
                                                                        std::shared_ptr<packet_t> packet, bool skip,
                                                                        int fin, bool& handled) {
    if (is_authorized() && packet && packet->size() > longest_control) {
        handled = true;
        refuse(refusals_t::protocol, "a control message that is too long");
        return nullptr;
    }
    if (is_authorized()) {
        return guarded_context_t::on_received_control_packet(stream_id, std::move(packet), skip, fin, handled);
    }
    handled = true;
    // When its control stream has ended, the base ends the connection.
    if (closed != 0 || is_turned_away() || (skip && fin != 0)) return nullptr;
    if (asked_) {
        break_off("a second message before the first one was answered");
    } else if (skip || !packet) {
        break_off("no handshake");
    } else {
        take_handshake(*packet);
    }
    return nullptr;
}

void gateway_context_t::take_handshake(packet_t& packet) {
    handshake_t shown;
    if (!read_handshake(packet, shown)) return break_off("no handshake");
    asked_ = true;
    const std::weak_ptr<gateway_context_t> self = weak_from_this();
    gateway_->doorkeeper().ask({shown.i, shown.c, shown.t, shown.m}, source(connection),
                               // Who goes before the answer leaves its place only then.
                               [self, machine = shown.m, place = stranger_](const verdict_t& verdict) {
                                   if (const auto context = self.lock()) context->answer(verdict, machine);
                               });
}

void gateway_context_t::break_off(const char* what) {
    if (!is_turned_away()) turn_away(refusals_t::protocol, what, verdict_t::wrong_protocol, "wrong protocol");
}

void gateway_context_t::turn_away(refusals_t::why_t why, const std::string& what, int code, const std::string& reason) {
    take_no_more();
    refuse(why, what);
    const uint64_t stream_id = peer_control_known ? peer_control_stream_id : control_stream_id;
    send_packet(stream_id, decide_handshake(false, code, reason, 0), 0);
    deadline_.emplace(gateway_->loop(), leave_within_us, [this] { force_close(); });
}

void gateway_context_t::answer(const verdict_t& verdict, const std::string& machine) {
    if (closed != 0 || is_turned_away()) return;
    if (!verdict.admission) {
        const bool later = verdict.code == verdict_t::try_later;
        return turn_away(later ? refusals_t::attempts : refusals_t::credentials, source(connection), verdict.code,
                         verdict.reason);
    }
    const std::string& client = verdict.admission->client;
    auto usage = gateway_->usage_of(client);
    link_ = usage_t::hold(usage, usage_t::links);
    if (!link_) return turn_away(refusals_t::link_limit, client, verdict_t::try_later, "too many connections");
    admission_ = *verdict.admission;
    client_machine_ = machine;
    deadline_.reset();
    stranger_.reset();
    let_in(client, std::move(usage), gateway_->limits().frame_bytes);
    send_packet(peer_control_stream_id, decide_handshake(true, 0, "", 0), 0);
    gateway_->attach(*this);
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
    deadline_.reset();
    advanced_connection_context_t::on_destroy();
    stranger_.reset();
    link_.reset();
    // Now, not in a later turn: the listeners that this connection has borrowed may go to another one.
    update_forwarding();
    gateway_->detach(*this);
}

}  // namespace tandem
