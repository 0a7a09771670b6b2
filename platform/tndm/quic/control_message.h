// The few messages on a subflow's one QUIC stream, by which it enters a bundle.
//
//   client                                        server
//     hello (lane, limits, linger, schedule)  -->   makes a bundle
//           <--------------  welcome (id, join secret, limits)
//     ready ------------------------------------>   may send datagrams from now on
//
//     join (lane, id, proof)  ------------------>   finds the bundle, checks the proof
//           <---------------------------------  joined
//     ready ------------------------------------>
//
//     gone (lane) ------------------------------>   drops that lane at once: the client has lost it
//
// What a client says of a lane (its path's name, a number that no other lane of the client has, whether it is only a
// backup) holds for both directions.
//
// Each message is a 16-bit length, a type byte and a body, integers big-endian. The server sends datagrams only after
// "ready", or after a datagram of the client: before the welcome the client could not tell what they belong to.
#ifndef TANDEM_PLATFORM_TNDM_QUIC_CONTROL_MESSAGE_H
#define TANDEM_PLATFORM_TNDM_QUIC_CONTROL_MESSAGE_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/tndm/quic/secret.h"

namespace tndm::control {

inline constexpr uint8_t version = 2;
inline constexpr size_t max_message = 512;  // bytes of type and body
inline constexpr size_t max_name = 127;     // bytes of a path's name

// What a join's proof is bound to: exporter bytes of its own TLS session under this label.
inline constexpr std::string_view join_exporter_label = "EXPORTER-tndm-join";

using bundle_id = std::array<uint8_t, 20>;

// What the sender lets the other side do.
struct granted {
    uint32_t streams = 0;
    uint64_t stream_window = 0;
    uint64_t connection_window = 0;
};
// Which lane carries what, in both directions.
enum class policy : uint8_t { sooner_first = 0, redundant = 1 };
struct hello {
    std::string path;
    granted limits;
    uint32_t linger_seconds = 0;  // how long the connection outlives its last working path
    uint32_t lane = 0;
    bool backup = false;
    policy schedule = policy::sooner_first;
};
struct welcome {
    bundle_id id{};
    secret<32> join_secret;
    granted limits;
};
struct join {
    std::string path;
    bundle_id id{};
    digest_t proof{};
    uint32_t lane = 0;
    bool backup = false;
};
struct joined {};
struct ready {};
struct gone {
    uint32_t lane = 0;
};
using message = std::variant<hello, welcome, join, joined, ready, gone>;

std::vector<uint8_t> encode(const message& value);

// Cuts messages out of the stream's bytes.
class decoder {
  public:
    // False when the bytes cannot be a message of ours: the subflow must end.
    bool push(std::span<const uint8_t> bytes);
    std::optional<message> next();
    bool failed() const { return failed_; }

  private:
    std::vector<uint8_t> bytes_;
    bool failed_ = false;
};

}  // namespace tndm::control

#endif
