#include "gateway/gateway_context.h"

#include <fcntl.h>

#include <cstdio>

#include "common/log.h"
#include "gateway/end_of_stream.h"

namespace tandem {
namespace {

constexpr int refused = 1;

// What a stranger can make this side keep for one frame: room for a handshake. And what a client can, which is far
// above the frames that forwarding sends.
constexpr uint32_t stranger_frame = 4096;
constexpr uint32_t client_frame = 1 << 20;

// The code travels in 16 bits, and 0 in them means that the client is let in.
bool is_refusal_on_the_wire(int code) {
    return (code & 0xffff) != 0;
}

// The mark among an interface's options that they have been looked at.
constexpr const char* admitted = " admitted";

// `reason` may hold what the client has sent.
void log_refusal(std::string reason) {
    for (char& c : reason) {
        if (c < ' ' || c > '~') c = '?';
    }
    log_place("on_create_vpn_interface", __LINE__);
    std::printf("Gateway - VPN interface refused: %.300s\n", reason.c_str());
}

}  // namespace

gateway_context_t::gateway_context_t(st_tloop_t* link_loop, std::shared_ptr<authorizer_t> authorizer)
    : advanced_connection_context_t(link_loop, "", "", "", ""),
      authorizer_(std::move(authorizer)),
      deadline_(link_loop, authorize_within_us, [this] { force_close(); }) {
    set_delivery(delivery_t::lossless);
    max_frame_length = stranger_frame;
}

bool gateway_context_t::on_authorize(const std::string& id, const std::string& credential, const std::string& software,
                                     const std::string& machine, int& code, std::string& message) {
    code = authorizer_->authorize({id, credential, software, machine}, message);
    if (code == 0) {
        client_id_ = id;
        client_machine_ = machine;
        deadline_.cancel();
        max_frame_length = client_frame;
        return true;
    }
    if (!is_refusal_on_the_wire(code)) code = refused;
    return false;
}

std::shared_ptr<packet_t> gateway_context_t::on_received_stream_packet(uint64_t stream_id,
                                                                       std::shared_ptr<packet_t> packet, bool skip,
                                                                       int fin, bool& handled) {
    if (is_authorized()) {
        return advanced_connection_context_t::on_received_stream_packet(stream_id, std::move(packet), skip, fin,
                                                                        handled);
    }
    handled = true;
    return end_of_stream();
}

// The library would make an interface when this hook makes none. To refuse it for good the hook gives a descriptor that
// is no interface, and no name: set_if_options then ends the request.
int gateway_context_t::on_create_vpn_interface(uint64_t, std::multimap<std::string, std::string>& options,
                                               std::string& ifname, const std::string& mode) {
    std::string reason = "this gateway has no VPN";
    options.erase(admitted);
    if (vpn_host_ && vpn_host_->admit(client_id_, mode, ifname, options, reason)) {
        options.emplace(admitted, "");
        return -1;
    }
    log_refusal(reason);
    ifname.clear();
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool gateway_context_t::set_if_options(const std::string& ifname, std::multimap<std::string, std::string>& options) {
    if (ifname.empty() || !vpn_host_ || options.erase(admitted) == 0) return false;
    std::string reason;
    if (vpn_host_->set_up(ifname, options, reason)) return true;
    log_refusal(reason);
    return false;
}

void gateway_context_t::on_destroy() {
    deadline_.cancel();
    advanced_connection_context_t::on_destroy();
}

}  // namespace tandem
