#ifndef TANDEM_TESTS_E2E_NETWORK_H
#define TANDEM_TESTS_E2E_NETWORK_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "app/file.h"

namespace tandem::test {

// Sockets block, and give up after `patience`, so that a stall is a failure and not a hang.
app::file_t listen_tcp(uint16_t& port);
app::file_t connect_tcp(uint16_t port);
bool write_all(int fd, const void* data, size_t size);
// False when the stream ends or fails before.
bool read_all(int fd, void* data, size_t size);
// The bytes until the end of the stream; -1 when it fails instead.
int64_t read_to_end(int fd);
// A UDP port of 127.0.0.1 and 0.0.0.0 that nobody has just now.
uint16_t free_udp_port();

// A TCP service with a thread for every connection; the handler's socket is closed behind it.
class service_t {
  public:
    using handler_t = std::function<void(int fd)>;

    explicit service_t(handler_t handler);
    service_t(handler_t handler, app::file_t listening, uint16_t port);
    service_t(const service_t&) = delete;
    service_t& operator=(const service_t&) = delete;
    ~service_t();

    uint16_t port() const { return port_; }

  private:
    void accept_all();

    handler_t handler_;
    uint16_t port_ = 0;
    app::file_t listening_;
    std::vector<app::file_t> open_;
    std::vector<std::thread> handlers_;
    std::thread acceptor_;
};

// Sends back what comes; ends its direction when the other one has ended.
void echo(int fd);

// Sends a pattern to an echo service, `room()` bytes more each time until that is 0 (asked on another thread), ends
// that direction, and compares what returns, end of stream included; `progress` hears the total after each piece. Empty
// when all is well, else what is wrong.
std::string exchange(int fd, uint64_t seed, const std::function<uint64_t()>& room,
                     const std::function<void(uint64_t total)>& progress);
// The same with so many bytes; `at_quarter` is called once when a quarter is back, `at_half` when half is.
std::string exchange(int fd, uint64_t seed, uint64_t bytes, const std::function<void()>& at_quarter = {},
                     const std::function<void()>& at_half = {});

}  // namespace tandem::test

#endif  // TANDEM_TESTS_E2E_NETWORK_H
