#ifndef TANDEM_TESTS_E2E_UDP_PROXY_H
#define TANDEM_TESTS_E2E_UDP_PROXY_H

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "app/file.h"

namespace tandem::test {

// Carries datagrams between clients and a server on loopback, as a hostile network would: nothing is lost, but broken
// copies of what passes (bits turned, cut short, lengthened), old datagrams and pure noise go both ways along with it,
// from the addresses of the real ends.
class udp_proxy_t {
  public:
    explicit udp_proxy_t(uint16_t server_port);
    udp_proxy_t(const udp_proxy_t&) = delete;
    udp_proxy_t& operator=(const udp_proxy_t&) = delete;
    ~udp_proxy_t();

    uint16_t port() const { return port_; }
    uint64_t forged() const { return forged_; }

  private:
    using datagram_t = std::vector<uint8_t>;
    // One client socket, and the socket that speaks for it to the server.
    struct flow_t {
        sockaddr_in client{};
        app::file_t upstream;
    };

    void run();
    void from_client();
    void from_server(flow_t& flow);
    void remember(const datagram_t& datagram);
    datagram_t forge();
    bool roll(unsigned one_in) { return random_() % one_in == 0; }

    sockaddr_in server_{};
    uint16_t port_ = 0;
    app::file_t front_;
    app::file_t stop_;
    std::map<uint64_t, flow_t> flows_;
    std::vector<datagram_t> seen_;
    std::minstd_rand random_{1};
    std::atomic<uint64_t> forged_{0};
    std::thread thread_;
};

}  // namespace tandem::test

#endif  // TANDEM_TESTS_E2E_UDP_PROXY_H
