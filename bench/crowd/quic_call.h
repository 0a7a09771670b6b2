#ifndef TANDEM_BENCH_CROWD_QUIC_CALL_H
#define TANDEM_BENCH_CROWD_QUIC_CALL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/tndm/quic/subflow.h"

namespace bench {

/** What calls a server on 127.0.0.1 that it does not check the certificate of. */
class quic_caller {
  public:
    explicit quic_caller(std::string alpn);

    /** The first packet of a client that nobody has seen before. */
    std::vector<uint8_t> first_packet();
    /** A whole handshake over a socket of its own, and its end. Throws std::runtime_error when it fails. */
    void handshake(uint16_t port);

  private:
    std::unique_ptr<tndm::subflow> make(const tndm::endpoint& local, const tndm::endpoint& remote) const;

    const std::string alpn_;
    std::shared_ptr<const tndm::client_credentials> credentials_;
    std::vector<uint8_t> buffer_;
};

}  // namespace bench

#endif /* TANDEM_BENCH_CROWD_QUIC_CALL_H */
