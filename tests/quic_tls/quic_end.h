/* One end of a QUIC connection in memory, on a clock of its driver's: the transport's TLS beneath, and whatever it is
 * told to say on a stream and in datagrams. */
#ifndef TANDEM_TESTS_QUIC_TLS_QUIC_END_H
#define TANDEM_TESTS_QUIC_TLS_QUIC_END_H

#include <netinet/in.h>
#include <ngtcp2/ngtcp2.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "platform/tndm/quic/tls_session.h"

namespace tndm {

class quic_end {
  public:
    using packet = std::vector<uint8_t>;
    static constexpr ngtcp2_tstamp never = UINT64_MAX;

    /* A client starts by itself; a server needs the client's first packet. A client takes datagrams of up to
     * `datagram_size` bytes, or none at all. */
    quic_end(std::unique_ptr<tls_session> tls, ngtcp2_tstamp now, uint64_t datagram_size = 65535);
    quic_end(std::unique_ptr<tls_session> tls, std::span<const uint8_t> first_packet, ngtcp2_tstamp now);
    ~quic_end();
    quic_end(const quic_end&) = delete;
    quic_end& operator=(const quic_end&) = delete;

    /* Once this has met an error the end is closed and its last packet (CONNECTION_CLOSE) waits in `write`. */
    void read(std::span<const uint8_t> data, ngtcp2_tstamp now);
    /* Everything that may be sent now. Also due at `deadline`. */
    std::vector<packet> write(ngtcp2_tstamp now);
    ngtcp2_tstamp deadline() const;

    /* Sent once the handshake is complete; the stream is the first one both ways. */
    void say(std::span<const uint8_t> bytes);
    void datagram(packet bytes);
    /* Gets what comes on any stream; false ends the connection. */
    std::function<bool(std::span<const uint8_t>)> on_stream = [](auto) { return true; };
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
    ngtcp2_ssize write_one(packet& out, ngtcp2_tstamp now);
    void fail(int error, ngtcp2_tstamp now);
    static int receive_crypto(ngtcp2_conn* connection, ngtcp2_crypto_level level, uint64_t offset, const uint8_t* data,
                              size_t size, void* self);
    static ngtcp2_callbacks callbacks();

    std::unique_ptr<tls_session> tls_;
    ngtcp2_conn* connection_ = nullptr;
    sockaddr_in address_{};
    ngtcp2_path path_{};
    int error_ = 0;
    packet close_packet_;
    packet tail_;
    int64_t stream_ = -1;
    std::deque<packet> said_; /* the library refers to it */
    size_t saying_ = 0;       /* how many of them have gone out */
    size_t said_bytes_ = 0;   /* of the next one */
    std::deque<packet> datagrams_;
};

}  // namespace tndm

#endif
