#include "gateway/gateway_context.h"

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

void gateway_context_t::on_destroy() {
    deadline_.cancel();
    advanced_connection_context_t::on_destroy();
}

}  // namespace tandem
