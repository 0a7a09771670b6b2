/* A QUIC client and server that exchange their packets in memory. */
#ifndef TANDEM_TESTS_QUIC_TLS_QUIC_PAIR_H
#define TANDEM_TESTS_QUIC_TLS_QUIC_PAIR_H

#include <netinet/in.h>
#include <ngtcp2/ngtcp2.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/tndm/quic/tls_session.h"

namespace tndm {

constexpr ngtcp2_tstamp no_deadline = UINT64_MAX;

/* One end of one connection. */
class quic_end {
  public:
    using packet = std::vector<uint8_t>;

    /* A client starts by itself; a server needs the client's first packet. */
    quic_end(std::unique_ptr<tls_session> tls, ngtcp2_tstamp now);
    quic_end(std::unique_ptr<tls_session> tls, std::span<const uint8_t> first_packet, ngtcp2_tstamp now);
    ~quic_end();
    quic_end(const quic_end&) = delete;
    quic_end& operator=(const quic_end&) = delete;

    /* Once this has met an error the end is closed and its last packet (CONNECTION_CLOSE) waits in `write`. */
    void read(std::span<const uint8_t> data, ngtcp2_tstamp now);
    /* Everything that may be sent now. */
    std::vector<packet> write(ngtcp2_tstamp now);
    /* When `expire` is due (pacing, loss detection, delayed acknowledgements). */
    ngtcp2_tstamp deadline() const;
    void expire(ngtcp2_tstamp now);

    /* Makes this end send `bytes` in its TLS handshake stream right behind its Finished message. Before its first
     * `read`. */
    void append_to_finished(packet bytes) { tail_ = std::move(bytes); }

    ngtcp2_conn* connection() const { return connection_; }
    tls_session& tls() const { return *tls_; }
    bool completed() const { return ngtcp2_conn_get_handshake_completed(connection_) != 0; }
    /* The library's result that closed this end, or 0. */
    int error() const { return error_; }
    /* The error code in the peer's CONNECTION_CLOSE, or 0. */
    uint64_t peer_error() const;

  private:
    explicit quic_end(std::unique_ptr<tls_session> tls);
    void fail(int error, ngtcp2_tstamp now);
    static int receive_crypto(ngtcp2_conn* connection, ngtcp2_crypto_level level, uint64_t offset, const uint8_t* data,
                              size_t size, void* user_data);

    std::unique_ptr<tls_session> tls_;
    ngtcp2_conn* connection_ = nullptr;
    sockaddr_in address_{};
    ngtcp2_path path_{};
    int error_ = 0;
    packet close_packet_;
    packet tail_;
};

/* Both ends and a virtual clock. */
class quic_pair {
  public:
    quic_pair(std::unique_ptr<tls_session> client, std::unique_ptr<tls_session> server);
    /* Carries packets both ways, and lets time pass, until neither end has anything left to do. */
    void run();

    quic_end client;
    std::unique_ptr<quic_end> server;
    quic_end::packet server_tail; /* for the server's append_to_finished */

  private:
    bool exchange();

    std::unique_ptr<tls_session> server_tls_;
    ngtcp2_tstamp now_ = 1;
};

}  // namespace tndm

#endif
