#ifndef TANDEM_BENCH_RIG_FLOW_SOCKET_H
#define TANDEM_BENCH_RIG_FLOW_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace flow {

/** A blocking TCP socket without Nagle's delay. Failures throw std::system_error; a measurement has nothing to go on
 * with. Made by socket(2) with protocol 0, so that mptcpize can turn it into an MPTCP socket. */
class connection {
  public:
    explicit connection(int fd);
    connection(connection&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    ~connection();

    /** `host` is an IPv4 address. */
    static connection to(const std::string& host, uint16_t port);

    void send_all(const void* data, size_t bytes) const;
    /** Nothing more will be sent. */
    void end() const;
    /** At least one byte; 0 when the peer has ended. */
    size_t receive(void* data, size_t room) const;
    /** False when the peer ended before the first byte; an end in the middle throws std::runtime_error. */
    bool receive_all(void* data, size_t bytes) const;

  private:
    int fd_;
};

/** Accepts on every address, each connection on a thread of its own. Does not return. A connection that fails is
 * reported on standard error and does not disturb the others. `congestion` names the kernel's congestion control for
 * what is sent; empty: the system's. */
[[noreturn]] void serve(uint16_t port, const std::string& congestion, void (*handle)(connection&));

}  // namespace flow

#endif /* TANDEM_BENCH_RIG_FLOW_SOCKET_H */
