#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <random>
#include <thread>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/network.h"
#include "tests/e2e/udp_proxy.h"

namespace tandem::test {
namespace {

// Throws datagrams at a UDP port for as long as it lives: noise of every size, first packets of unknown versions, first
// packets cut short, and first packets that begin a handshake and never go on.
class flood_t {
  public:
    explicit flood_t(uint16_t port) : port_(port), thread_([this] { run(); }) {}
    flood_t(const flood_t&) = delete;
    flood_t& operator=(const flood_t&) = delete;
    ~flood_t() {
        stop_ = true;
        thread_.join();
    }

  private:
    void run() {
        const app::file_t socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port_);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::minstd_rand random(7);
        while (!stop_) {
            std::vector<uint8_t> datagram(random() % 1500);
            for (uint8_t& byte : datagram)
                byte = static_cast<uint8_t>(random());
            if (datagram.size() > 30 && random() % 2 == 0) make_first_packet(datagram, random);
            sendto(socket.fd(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                   sizeof(to));
            std::this_thread::sleep_for(
                std::chrono::microseconds(200));  // 5000 a second: hostile, but not a denial of the processor
        }
    }

    // A long header of the first type: version 1 or another, then two connection ids of believable or of wrong lengths.
    static void make_first_packet(std::vector<uint8_t>& datagram, std::minstd_rand& random) {
        const bool known_version = random() % 4 != 0;
        const uint8_t head[] = {
            0xc3, 0, 0, 0, static_cast<uint8_t>(known_version ? 1 : random()), static_cast<uint8_t>(random() % 24)};
        std::copy(std::begin(head), std::end(head), datagram.begin());
        if (random() % 2 == 0) datagram.resize(1200);
    }

    uint16_t port_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(hostile, forged_datagrams_and_noise_change_nothing) {
    link_fixture_t link;
    const service_t service(echo);
    process_t server = link.start_server();
    const flood_t flood(link.port());
    const udp_proxy_t proxy(link.port());
    link.use_port(proxy.port());
    process_t client(link.client_args(service.port()));
    const uint16_t port = wait_forward(client);
    EXPECT_EQ(exchange(connect_tcp(port).fd(), 8, bulk_bytes / 4), "");
    EXPECT_GT(proxy.forged(), bulk_bytes / 4 / 65536) << "the attack did not take place";
    EXPECT_EQ(client.wait_line("reconnected", std::chrono::milliseconds(0)), "") << "no connection may have broken";
    client.signal(SIGTERM);
    EXPECT_EQ(client.wait(), 0) << client.errors();
    EXPECT_EQ(client.errors(), "");
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0) << server.errors();
}

}  // namespace
}  // namespace tandem::test
