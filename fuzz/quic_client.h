// A QUIC client in memory and in virtual time, whose handshake is honest unless it is told to lie, and which says
// whatever it is given on its control stream and in datagrams.
#ifndef TANDEM_FUZZ_QUIC_CLIENT_H
#define TANDEM_FUZZ_QUIC_CLIENT_H

#include <netinet/in.h>
#include <ngtcp2/ngtcp2.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/tndm/core/time.h"
#include "platform/tndm/quic/control_message.h"
#include "platform/tndm/quic/tls_session.h"

namespace fuzz {

using bytes_t = std::vector<uint8_t>;

class quic_client {
  public:
    // A change of one byte of what TLS says, made before it is encrypted.
    struct lie {
        uint32_t offset;  // of all bytes that TLS has said so far
        uint8_t change;   // exclusive or
    };

    quic_client(std::shared_ptr<const tndm::client_credentials> credentials, uint16_t own_port, uint16_t server_port,
                std::optional<lie> told, tndm::core::instant now);
    ~quic_client();
    quic_client(const quic_client&) = delete;
    quic_client& operator=(const quic_client&) = delete;

    void read(std::span<const uint8_t> packet, tndm::core::instant now);
    // Everything that is due; at most `most` packets.
    std::vector<bytes_t> write(tndm::core::instant now, size_t most = 16);

    void say(std::span<const uint8_t> bytes) { stream_.insert(stream_.end(), bytes.begin(), bytes.end()); }
    // Not empty: the library does not send such.
    void datagram(bytes_t bytes) {
        if (!bytes.empty()) datagrams_.push_back(std::move(bytes));
    }

    const sockaddr_in& address() const { return local_; }
    // The bundle that this client has been given, once it has.
    const std::optional<tndm::control::welcome>& welcomed() const { return welcomed_; }
    // Bytes of this client's own TLS session, for a join.
    std::optional<std::array<uint8_t, 32>> exporter() const;

    static int submit_crypto(ngtcp2_conn* connection, ngtcp2_crypto_level level, const uint8_t* data, size_t size);

  private:
    static int on_stream(ngtcp2_conn*, uint32_t, int64_t, uint64_t, const uint8_t* data, size_t size, void* user,
                         void*);
    ngtcp2_ssize write_one(std::span<uint8_t> out, ngtcp2_tstamp now);

    std::unique_ptr<tndm::tls_session> tls_;
    std::optional<lie> lie_;
    uint32_t crypto_said_ = 0;
    std::deque<bytes_t> crypto_;  // the library refers to it
    sockaddr_in local_{};
    sockaddr_in remote_{};
    ngtcp2_path path_{};
    int error_ = 0;
    int64_t stream_id_ = -1;
    std::deque<uint8_t> stream_;
    std::deque<bytes_t> sent_;  // likewise
    std::deque<bytes_t> datagrams_;
    tndm::control::decoder messages_;
    std::optional<tndm::control::welcome> welcomed_;
    ngtcp2_conn* connection_ = nullptr;
};

}  // namespace fuzz

#endif  // TANDEM_FUZZ_QUIC_CLIENT_H
