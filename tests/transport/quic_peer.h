// A QUIC client that speaks to the transport's server by hand: what it says on the control stream and in datagrams is
// up to the test.
#ifndef TANDEM_TESTS_TRANSPORT_QUIC_PEER_H
#define TANDEM_TESTS_TRANSPORT_QUIC_PEER_H

#include <netinet/in.h>
#include <ngtcp2/ngtcp2.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/tndm/quic/control_message.h"
#include "platform/tndm/quic/tls_session.h"

namespace transport_test {

class quic_peer {
  public:
    struct options {
        std::string alpn = "test";
        uint64_t datagram_size = 65535;  // what it takes; 0: none
    };
    explicit quic_peer(uint16_t server_port) : quic_peer(server_port, options()) {}
    quic_peer(uint16_t server_port, const options& how);
    ~quic_peer();
    quic_peer(const quic_peer&) = delete;
    quic_peer& operator=(const quic_peer&) = delete;

    // All of these drive the connection until what is waited for has come, or fail after `limit`.
    using milliseconds = std::chrono::milliseconds;
    bool handshake(milliseconds limit = std::chrono::seconds(10));
    std::optional<tndm::control::message> next_message(milliseconds limit = std::chrono::seconds(10));
    bool closed(milliseconds limit = std::chrono::seconds(10));
    // Keeps the connection alive for a while.
    void idle(milliseconds time) {
        drive([] { return false; }, time);
    }

    // Queued; what drives the connection next sends it.
    void say(std::span<const uint8_t> bytes) { stream_.insert(stream_.end(), bytes.begin(), bytes.end()); }
    void say(const tndm::control::message& message) { say(tndm::control::encode(message)); }
    void datagram(std::vector<uint8_t> bytes) { datagrams_.push_back(std::move(bytes)); }
    bool sent() const { return stream_.size() == stream_given_ && datagrams_.empty(); }
    // Hello, welcome, ready.
    std::optional<tndm::control::welcome> join_new(const std::string& path = "hostile", uint32_t linger = 1);

    // How the server closed: the error code of its CONNECTION_CLOSE.
    uint64_t error_code() const;
    size_t datagrams_received() const { return datagrams_received_; }
    tndm::tls_session& tls() const { return *tls_; }

  private:
    bool drive(const std::function<bool()>& done, milliseconds limit);
    void read();
    void write();
    bool write_one();

    static int on_stream(ngtcp2_conn*, uint32_t, int64_t, uint64_t, const uint8_t* data, size_t size, void* user,
                         void*);
    static int on_datagram(ngtcp2_conn*, uint32_t, const uint8_t*, size_t, void* user);

    std::unique_ptr<tndm::tls_session> tls_;
    ngtcp2_conn* connection_ = nullptr;
    sockaddr_in local_{};
    sockaddr_in remote_{};
    ngtcp2_path path_{};
    int fd_ = -1;
    int error_ = 0;
    int64_t stream_id_ = -1;
    std::vector<uint8_t> stream_;
    size_t stream_given_ = 0;
    std::deque<std::vector<uint8_t>> datagrams_;
    size_t datagrams_received_ = 0;
    tndm::control::decoder messages_;
};

}  // namespace transport_test

#endif
