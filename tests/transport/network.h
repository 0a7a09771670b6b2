// A network between clients and a server, made of loopback sockets: each path (told by the client's address) has a
// queue of its own in each direction and can go dark, and every datagram can be looked at.
#ifndef TANDEM_TESTS_TRANSPORT_NETWORK_H
#define TANDEM_TESTS_TRANSPORT_NETWORK_H

#include <netinet/in.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace transport_test {

enum class way { up, down };  // to the server, to the client

struct conditions {
    std::chrono::microseconds delay{2000};  // each way
    uint64_t mbit = 200;                    // each way
};

// A socket on loopback that does not block, connected to that port there unless it is 0.
int open_udp(uint16_t to = 0);

class network {
  public:
    using datagram_t = std::vector<uint8_t>;
    // False swallows the datagram. On the network's thread.
    using tap_t = std::function<bool(way, const datagram_t&)>;

    network(uint16_t server_port, const conditions& everywhere, tap_t tap);
    ~network();
    network(const network&) = delete;
    network& operator=(const network&) = delete;

    uint16_t port() const { return port_; }
    // A path that is dark in both directions, or only for what goes to the server.
    void dark(const std::string& path, bool now, bool only_up = false);
    // From now on larger datagrams are swallowed everywhere.
    void swallow_above(size_t size) { largest_ = size; }
    // From now on every client is seen by the server under a new port.
    void forget_addresses() { forget_ = true; }

  private:
    using clock = std::chrono::steady_clock;
    struct flow {
        flow(const sockaddr_in& from, const char* name, int fd) : client(from), path(name), upstream(fd) {}
        ~flow() { close(upstream); }
        sockaddr_in client;
        std::string path;
        int upstream;
    };
    struct packet {
        std::shared_ptr<flow> of;
        way direction;
        datagram_t bytes;
    };
    struct direction_state {
        clock::time_point free_at;
        bool dark = false;
    };

    void run();
    // What waits in a socket: the server's answers to a client, or what the clients have sent.
    void read(int fd, std::shared_ptr<flow> of);
    std::shared_ptr<flow> flow_of(const sockaddr_in& client);
    void accept(packet&& taken);
    void deliver_due();

    const uint16_t server_port_;
    const conditions conditions_;
    uint16_t port_ = 0;
    int front_ = -1;
    int stop_ = -1;
    tap_t tap_;
    std::map<uint64_t, std::shared_ptr<flow>> flows_;
    std::multimap<clock::time_point, packet> waiting_;
    std::atomic<bool> forget_{false};
    std::atomic<size_t> largest_{65536};

    std::mutex mutex_;  // guards what follows
    std::map<std::pair<std::string, way>, direction_state> directions_;

    std::thread thread_;
};

}  // namespace transport_test

#endif
