#ifndef TANDEM_BENCH_TOOLS_SOCKETS_H
#define TANDEM_BENCH_TOOLS_SOCKETS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace bench {

/** What one send or receive call of a bulk transfer is given. */
inline constexpr size_t block_bytes = 256 * 1024;

/** A blocking TCP socket on 127.0.0.1. Failures throw std::system_error or std::runtime_error: a benchmark has nothing
 * to go on with. */
class tcp_socket {
  public:
    explicit tcp_socket(int fd) : fd_(fd) {}
    tcp_socket(tcp_socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    tcp_socket(const tcp_socket&) = delete;
    tcp_socket& operator=(const tcp_socket&) = delete;
    ~tcp_socket();

    static tcp_socket connected_to(uint16_t port);
    /** Listens on a port of the system's choice, which `port` receives. */
    static tcp_socket listening(uint16_t& port);
    tcp_socket accepted() const;

    void send_all(const void* data, size_t bytes) const;
    /** Sends `bytes` zeros in blocks. */
    void send_zeros(uint64_t bytes) const;
    /** False when the peer closed before the first byte; an end in the middle throws. */
    bool receive_all(void* data, size_t bytes) const;
    /** Receives `bytes` bytes and forgets them. */
    void discard(uint64_t bytes) const;

  private:
    int fd_;
};

}  // namespace bench

#endif /* TANDEM_BENCH_TOOLS_SOCKETS_H */
