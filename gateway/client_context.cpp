#include "gateway/client_context.h"

#include "gateway/end_of_stream.h"

namespace tandem {
namespace {

// Far above the frames that forwarding sends: a bound on what a server can make this side keep for one.
constexpr uint32_t longest_frame = 1 << 20;

}  // namespace

client_context_t::client_context_t(st_tloop_t* link_loop, const identity_t& identity,
                                   std::vector<listening_forward_t> to_forward, client_observer_t& observer)
    : advanced_connection_context_t(link_loop, identity.id, identity.credential, identity.software, identity.machine),
      to_forward_(std::move(to_forward)),
      observer_(observer),
      deadline_(link_loop, answer_within_us, [this] { force_close(); }) {
    set_delivery(delivery_t::lossless);
    max_frame_length = longest_frame;
}

void client_context_t::on_authorize_acked(int code, const std::string& message) {
    deadline_.cancel();
    if (code != 0) {
        observer_.on_refused(code, message);
        return;
    }
    // Only a later turn of the loop watches the sockets, when the base has marked the connection as authorised.
    for (const listening_forward_t& forward : to_forward_) {
        if (forward.type == TYPE_VPN) {
            add_vpn_forward(forward.fd, forward.target_host, true);
        } else if (forward.type == TYPE_UDP) {
            add_udp_forward(forward.fd, forward.target_host, forward.target_port, true);
        } else {
            add_tcp_forward(forward.fd, forward.target_host, forward.target_port, true);
        }
    }
    observer_.on_authorized();
}

std::shared_ptr<packet_t> client_context_t::on_external_analyse_stream_packet(uint64_t, std::shared_ptr<packet_t>, bool,
                                                                              int, bool& handled) {
    handled = true;
    return end_of_stream();
}

void client_context_t::on_destroy() {
    deadline_.cancel();
    advanced_connection_context_t::on_destroy();
    observer_.on_disconnected(is_authorized());
}

}  // namespace tandem
