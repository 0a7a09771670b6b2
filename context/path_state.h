#ifndef TANDEM_CONTEXT_PATH_STATE_H
#define TANDEM_CONTEXT_PATH_STATE_H

#include <cstdint>
#include <memory>
#include <string>

#include "common/export.h"
#include "common/packet.h"

namespace tandem {

// One path's statistics at one moment, and their form in a report: a map of 16 entries, tagged "M": "PINF". The
// comments name the keys.
struct TANDEM_API path_state_t {
    std::string name;   // "if"
    std::string state;  // "st": "IDLE", "CONNECTED", "CONNECTING", "DEAD" or "UNKNOWN"
    uint64_t rtt = 0;   // "rtt": the transport's value divided by 1000 (milliseconds)
    uint64_t tx = 0;    // "tx": bits a second sent over the last interval
    uint64_t rx = 0;    // "rx": bits a second received over the last interval
    uint64_t tx_t = 0;  // "tx_t": the transport's counter (packets sent)
    uint64_t rx_t = 0;  // "rx_t": the transport's counter (packets received)
    uint64_t cr_t = 0;  // "cr_t": the transport's counter (bytes sent again)
    uint64_t lo = 0;    // "lo": packets lost a second over the last interval
    uint64_t tx_a = 0;  // "tx_a": bytes sent in all
    uint64_t rx_a = 0;  // "rx_a": bytes received in all
    uint64_t lo_a = 0;  // "lo_a": packets lost in all
    uint64_t pr = 0;    // "pr": pacing rate, bits a second
    uint64_t cwin = 0;  // "cwin": congestion window, bytes
    uint64_t bw_e = 0;  // "bw_e": estimated bandwidth, bits a second

    // 0, or -1 when `packet` is null.
    int fill_to_packet(packet_t* packet) const;
    // Reads the next value. 0, or -1 when it is not a path's map or an argument is null; members may be filled even
    // then.
    int read_from_packet(packet_t* packet, std::shared_ptr<packet_t::base_unpacker> unpacker);
    int read_from_map(const message_variant_t::map_t& map);
};

}  // namespace tandem

#endif  // TANDEM_CONTEXT_PATH_STATE_H
