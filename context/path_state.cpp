#include "context/path_state.h"

namespace tandem {

namespace {

struct field_t {
    const char* key;
    uint64_t path_state_t::*member;
};

// In the order on the wire.
constexpr field_t fields[] = {
    {"rtt", &path_state_t::rtt},   {"tx", &path_state_t::tx},     {"rx", &path_state_t::rx},
    {"lo", &path_state_t::lo},     {"tx_t", &path_state_t::tx_t}, {"rx_t", &path_state_t::rx_t},
    {"cr_t", &path_state_t::cr_t}, {"tx_a", &path_state_t::tx_a}, {"rx_a", &path_state_t::rx_a},
    {"lo_a", &path_state_t::lo_a}, {"pr", &path_state_t::pr},     {"cwin", &path_state_t::cwin},
    {"bw_e", &path_state_t::bw_e},
};
constexpr int entries = 3 + static_cast<int>(std::size(fields));
static_assert(entries == 16);

}  // namespace

int path_state_t::fill_to_packet(packet_t* packet) const {
    if (packet == nullptr) return -1;
    packet->pack_map_raw(entries);
    packet->pack_string("M");
    packet->pack_string("PINF");
    packet->pack_string("if");
    packet->pack_string(name);
    packet->pack_string("st");
    packet->pack_string(state);
    for (const field_t& field : fields) {
        packet->pack_string(field.key);
        packet->pack_uint64(this->*field.member);
    }
    return 0;
}

int path_state_t::read_from_packet(packet_t* packet, std::shared_ptr<packet_t::base_unpacker> unpacker) {
    if (packet == nullptr || unpacker == nullptr) return -1;
    const message_variant_t value = packet->unpack_next(unpacker);
    message_variant_t::map_t map;
    return value.get_map(map) < 1 ? -1 : read_from_map(map);
}

int path_state_t::read_from_map(const message_variant_t::map_t& map) {
    bool tagged = false;
    for (const auto& [key, value] : map) {
        if (key.is_text("M")) {
            tagged = value.is_text("PINF");
        } else if (key.is_text("if")) {
            name = value.get_string();
        } else if (key.is_text("st")) {
            state = value.get_string();
        }
        for (const field_t& field : fields) {
            if (key.is_text(field.key)) this->*field.member = value.get_uint64();
        }
    }
    return tagged ? 0 : -1;
}

}  // namespace tandem
