/* The TLS 1.3 session beneath one QUIC connection. */
#ifndef TANDEM_PLATFORM_TNDM_QUIC_TLS_SESSION_H
#define TANDEM_PLATFORM_TNDM_QUIC_TLS_SESSION_H

#include <gnutls/gnutls.h>
#include <ngtcp2/ngtcp2.h>
#include <ngtcp2/ngtcp2_crypto.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/tndm/quic/credentials.h"

namespace tndm {

/* TLS 1.3 only, without session tickets and 0-RTT. Used on the QUIC connection's thread. It must outlive the ngtcp2
 * connection that it is attached to (that one calls into it until ngtcp2_conn_del returns); it keeps its credentials
 * alive. */
class tls_session {
  public:
    /* An empty `alpn` offers none. The handshake fails when the server's certificate is not acceptable;
     * certificate_error() then says why. Null and one line in `error` on failure. */
    static std::unique_ptr<tls_session> create_client(std::shared_ptr<const client_credentials> credentials,
                                                      std::string_view alpn, std::string& error);
    /* An empty `alpn` takes every client and selects nothing; otherwise a client must offer exactly this one. */
    static std::unique_ptr<tls_session> create_server(std::shared_ptr<const server_credentials> credentials,
                                                      std::string_view alpn, std::string& error);

    ~tls_session();
    tls_session(const tls_session&) = delete;
    tls_session& operator=(const tls_session&) = delete;

    /* Makes `connection` and this session know each other: before the connection's first packet is read or written. */
    void attach(ngtcp2_conn* connection);

    /* The `recv_crypto_data` callback of every connection, instead of ngtcp2_crypto_recv_crypto_data_cb: a TLS message
     * after the handshake ends the connection with "unexpected message" instead of reaching GnuTLS, which would collect
     * its parts without a bound. Nothing is lost: there are no session tickets here. */
    static int receive_crypto_data(ngtcp2_conn* connection, ngtcp2_crypto_level level, uint64_t offset,
                                   const uint8_t* data, size_t size, void* user_data);

    gnutls_session_t handle() const { return session_; }
    /* The protocol agreed on; empty before that, or when there is none. */
    std::string selected_alpn() const;
    /* Why this client refused the server's certificate, one line; empty when it did not. */
    const std::string& certificate_error() const { return certificate_error_; }
    /* Fills `out` with bytes that only the two ends of this session know (RFC 5705 / RFC 8446 7.5). Only after the
     * handshake has completed; false before that or on failure. */
    bool exporter(std::string_view label, std::span<const uint8_t> context, std::span<uint8_t> out) const;

  private:
    tls_session();
    bool open(unsigned flags, gnutls_certificate_credentials_t credentials, std::string& error);
    bool offer_alpn(std::string_view alpn, unsigned flags, std::string& error);
    static tls_session& of(gnutls_session_t session);
    static int verify_peer(gnutls_session_t session);
    static int on_handshake_message(gnutls_session_t session, unsigned type, unsigned when, unsigned incoming,
                                    const gnutls_datum_t* message);

    std::shared_ptr<const client_credentials> client_;
    std::shared_ptr<const server_credentials> server_;
    gnutls_session_t session_ = nullptr;
    ngtcp2_conn* connection_ = nullptr;
    ngtcp2_crypto_conn_ref reference_{};
    bool alpn_required_ = false;
    std::string certificate_error_;
};

}  // namespace tndm

#endif
