// A QUIC client in memory and in virtual time, whose handshake is honest unless it is told to lie, and which says
// whatever it is given on its control stream and in datagrams.
#ifndef TANDEM_FUZZ_QUIC_CLIENT_H
#define TANDEM_FUZZ_QUIC_CLIENT_H

#include <arpa/inet.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

#include <optional>

#include "fuzz/input.h"
#include "platform/tndm/core/time.h"
#include "platform/tndm/quic/control_message.h"
#include "tests/quic_tls/quic_end.h"

namespace fuzz {

using bytes_t = std::vector<uint8_t>;

class quic_client : public tndm::quic_end {
  public:
    // A change of one byte of what TLS says, made before it is encrypted.
    struct lie {
        uint32_t offset;  // of all bytes that TLS has said so far
        uint8_t change;   // exclusive or
    };

    quic_client(const std::shared_ptr<const tndm::client_credentials>& credentials, uint16_t own_port,
                std::optional<lie> told, tndm::core::instant now)
        : quic_end(session(credentials), stamp(now)), lie_(told) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address_.sin_port = htons(own_port);
        on_stream = [this](std::span<const uint8_t> bytes) {
            require(messages_.push(bytes), "the server says only what can be understood");
            while (auto message = messages_.next()) {
                if (const auto* welcome = std::get_if<tndm::control::welcome>(&*message)) welcomed_ = *welcome;
            }
            return true;
        };
        if (lie_) {
            gnutls_db_set_ptr(tls().handle(), this);
            gnutls_handshake_set_read_function(tls().handle(), submit);
        }
    }

    void read(std::span<const uint8_t> arrived, tndm::core::instant now) { quic_end::read(arrived, stamp(now)); }
    std::vector<bytes_t> write(tndm::core::instant now) { return quic_end::write(stamp(now)); }

    const sockaddr_in& address() const { return address_; }
    // The bundle that this client has been given, once it has.
    const std::optional<tndm::control::welcome>& welcomed() const { return welcomed_; }
    // Bytes of this client's own TLS session, for a join.
    std::optional<std::array<uint8_t, 32>> exporter() const {
        std::array<uint8_t, 32> bytes;
        if (!completed() || !tls().exporter(tndm::control::join_exporter_label, {}, bytes)) return std::nullopt;
        return bytes;
    }

  private:
    static ngtcp2_tstamp stamp(tndm::core::instant now) {
        return static_cast<ngtcp2_tstamp>(now.time_since_epoch().count());
    }
    static std::unique_ptr<tndm::tls_session> session(const std::shared_ptr<const tndm::client_credentials>& trust) {
        std::string error;
        auto made = tndm::tls_session::create_client(trust, "test", error);
        require(made != nullptr, "a TLS session can be made");
        return made;
    }
    static int submit(gnutls_session_t session, gnutls_record_encryption_level_t level,
                      gnutls_handshake_description_t type, const void* data, size_t size) {
        if (type == GNUTLS_HANDSHAKE_CHANGE_CIPHER_SPEC) return 0;
        auto& self = *static_cast<quic_client*>(gnutls_db_get_ptr(session));
        const auto* first = static_cast<const uint8_t*>(data);
        bytes_t said(first, first + size);
        const uint32_t at = self.lie_->offset - self.tls_said_;
        if (at < said.size()) said[at] ^= self.lie_->change;
        self.tls_said_ += static_cast<uint32_t>(size);
        return ngtcp2_conn_submit_crypto_data(
            self.connection(), ngtcp2_crypto_gnutls_from_gnutls_record_encryption_level(level), said.data(), size);
    }

    std::optional<lie> lie_;
    uint32_t tls_said_ = 0;
    sockaddr_in address_{};
    tndm::control::decoder messages_;
    std::optional<tndm::control::welcome> welcomed_;
};

}  // namespace fuzz

#endif  // TANDEM_FUZZ_QUIC_CLIENT_H
