// A QUIC client that speaks to the transport's server by hand: what it says on the control stream and in datagrams is
// up to the test.
#ifndef TANDEM_TESTS_TRANSPORT_QUIC_PEER_H
#define TANDEM_TESTS_TRANSPORT_QUIC_PEER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/tndm/quic/control_message.h"
#include "tests/quic_tls/quic_end.h"

namespace transport_test {

class quic_peer : public tndm::quic_end {
  public:
    // Takes datagrams of up to `datagram_size` bytes, or none.
    explicit quic_peer(uint16_t server_port, uint64_t datagram_size = 65535);
    ~quic_peer();

    // All of these drive the connection until what is waited for has come, or fail after `limit`.
    using milliseconds = std::chrono::milliseconds;
    bool handshake(milliseconds limit = std::chrono::seconds(10));
    std::optional<tndm::control::message> next_message(milliseconds limit = std::chrono::seconds(10));
    bool closed(milliseconds limit = std::chrono::seconds(10));
    // Keeps the connection alive for a while.
    void idle(milliseconds time) {
        drive([] { return false; }, time);
    }

    using quic_end::say;
    void say(const tndm::control::message& message) { say(tndm::control::encode(message)); }
    // Handshake, hello, welcome, and ready unless it is to stay mute.
    std::optional<tndm::control::welcome> join_new(uint32_t linger = 1, bool mute = false);

  private:
    bool drive(const std::function<bool()>& done, milliseconds limit);

    int fd_;
    tndm::control::decoder messages_;
};

}  // namespace transport_test

#endif
