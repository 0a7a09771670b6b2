#include "context/default_connection_context.h"

#include <cstdio>

#include "common/log.h"
#include "link/tndm.h"

namespace tandem {

default_connection_context_t::default_connection_context_t(const std::string& i, const std::string& c,
                                                           const std::string& t, const std::string& m)
    : hs_i(i), hs_c(c), hs_t(t), hs_m(m) {}

// The last resort: whoever dropped this context without a link must not leave a timer that points at it.
default_connection_context_t::~default_connection_context_t() {
    default_connection_context_t::stop_status_timer();
}

std::shared_ptr<packet_t> default_connection_context_t::on_create_initial_control_packet(uint64_t) {
    auto packet = std::make_shared<packet_t>(512);
    packet->pack_string("HSRQ");
    packet->pack_map_raw(4);
    packet->pack_string("i");
    packet->pack_string(hs_i);
    packet->pack_string("c");
    packet->pack_string(hs_c);
    packet->pack_string("t");
    packet->pack_string(hs_t);
    packet->pack_string("m");
    packet->pack_string(hs_m);
    return packet;
}

std::shared_ptr<packet_t> default_connection_context_t::on_received_control_packet(uint64_t,
                                                                                   std::shared_ptr<packet_t> packet,
                                                                                   bool skip, int fin, bool& handled) {
    if (skip || packet == nullptr) return nullptr;
    const auto unpacker = packet->new_unpacker();
    const message_variant_t type = packet->unpack_next(unpacker);
    if (authorized) {
        if (!type.is_text("PATH")) return nullptr;
        handled = true;
        store_peer_paths(*packet, unpacker);
        return nullptr;
    }
    if (!type.is_text(is_server != 0 ? "HSRQ" : "HSAK")) return nullptr;
    // A body that is not a map counts as an empty one.
    const message_variant_t value = packet->unpack_next(unpacker);
    message_variant_t::map_t body;
    value.get_map(body);
    handled = true;
    return is_server != 0 ? answer_handshake(body, fin) : finish_handshake(body, fin);
}

default_connection_context_t::handshake_t default_connection_context_t::to_handshake(
    const message_variant_t::map_t& body) {
    handshake_t handshake;
    for (const auto& [key, value] : body) {
        if (key.is_text("i")) handshake.i = value.get_string();
        if (key.is_text("c")) handshake.c = value.get_string();
        if (key.is_text("t")) handshake.t = value.get_string();
        if (key.is_text("m")) handshake.m = value.get_string();
    }
    return handshake;
}

bool default_connection_context_t::read_handshake(packet_t& packet, handshake_t& handshake) {
    const auto unpacker = packet.new_unpacker();
    const message_variant_t type = packet.unpack_next(unpacker);
    if (!type.is_text("HSRQ")) return false;
    const message_variant_t value = packet.unpack_next(unpacker);
    message_variant_t::map_t body;
    value.get_map(body);
    handshake = to_handshake(body);
    return true;
}

std::shared_ptr<packet_t> default_connection_context_t::answer_handshake(const message_variant_t::map_t& body,
                                                                         int fin) {
    const handshake_t asked = to_handshake(body);
    int code = 0;
    std::string message;
    const bool accepted = on_authorize(asked.i, asked.c, asked.t, asked.m, code, message);
    return decide_handshake(accepted, code, message, fin);
}

std::shared_ptr<packet_t> default_connection_context_t::decide_handshake(bool accepted, int code,
                                                                         const std::string& message, int fin) {
    if (accepted) authorized = true;
    auto reply = std::make_shared<packet_t>(128);
    reply->pack_string("HSAK");
    reply->pack_map_raw(2);
    reply->pack_string("r");
    reply->pack_int16(static_cast<int16_t>(code));
    reply->pack_string("s");
    reply->pack_string(message);
    // The end of the control stream behind a refusal ends the connection.
    reply->fin = !accepted || fin != 0 ? 1 : 0;
    return reply;
}

std::shared_ptr<packet_t> default_connection_context_t::finish_handshake(const message_variant_t::map_t& body,
                                                                         int fin) {
    int16_t result = -1;
    std::string message;
    for (const auto& [key, value] : body) {
        if (key.is_text("r")) result = static_cast<int16_t>(value.get_int64());
        if (key.is_text("s")) message = value.get_string();
    }
    on_authorize_acked(result, message);
    authorized = result == 0;
    if (result == 0 && fin == 0) {
        tndm_enable_keep_alive(connection, this, 0, 0);
        log_place("on_received_control_packet", 1090);
        std::puts(" tndm enable keep alive. ");
        start_status_timer();
        return nullptr;
    }
    auto end = std::make_shared<packet_t>(0);
    end->fin = 1;
    return end;
}

bool default_connection_context_t::link_ready() {
    return connection_context_t::link_ready() && authorized;
}

void default_connection_context_t::reset(void* new_instance, void* new_connection, st_tloop_t* new_loop,
                                         uint64_t new_status_interval, const std::string& new_alpn) {
    connection_context_t::reset(new_instance, new_connection, new_loop, new_status_interval, new_alpn);
    default_connection_context_t::internal_cleanup();
}

void default_connection_context_t::internal_cleanup() {
    {
        const std::lock_guard lock(peer_path_mutex);
        peer_paths.clear();
    }
    const std::lock_guard lock(local_path_mutex);
    local_paths.clear();
}

bool default_connection_context_t::on_authorize(const std::string&, const std::string&, const std::string&,
                                                const std::string&, int&, std::string&) {
    return true;
}

void default_connection_context_t::on_authorize_acked(int, const std::string&) {}
void default_connection_context_t::on_peer_path_updated(bool) {}
bool default_connection_context_t::is_authorized() {
    return authorized;
}

}  // namespace tandem
