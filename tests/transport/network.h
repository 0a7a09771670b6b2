// A network between clients and a server, made of loopback sockets: each path (told by the client's address) has its
// own rate, delay, loss and darkness, and every datagram can be looked at.
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
#include <queue>
#include <string>
#include <thread>
#include <vector>

namespace transport_test {

enum class way { up, down };  // to the server, to the client

struct conditions {
    std::chrono::microseconds delay{2000};  // each way
    uint64_t mbit = 200;                    // each way
    uint64_t queue_bytes = 300'000;         // what waits for the rate; the rest is dropped
    size_t largest = 65536;                 // datagrams above are swallowed
    bool dark_up = false;
    bool dark_down = false;
};

// A socket on loopback that does not block, connected to that port there unless it is 0.
int open_udp(uint16_t to = 0);

class network {
  public:
    using datagram_t = std::vector<uint8_t>;
    // False swallows the datagram. On the network's thread.
    using tap_t = std::function<bool(way, const datagram_t&)>;

    explicit network(uint16_t server_port, tap_t tap = {});
    ~network();
    network(const network&) = delete;
    network& operator=(const network&) = delete;

    uint16_t port() const { return port_; }
    // Changes a path's conditions; for the whole network without a path's name.
    void set(const std::string& path, const std::function<void(conditions&)>& change);
    void set(const std::function<void(conditions&)>& change) { set({}, change); }
    void dark(const std::string& path, bool now) {
        set(path, [now](conditions& c) { c.dark_up = c.dark_down = now; });
    }
    // From now on every client is seen by the server under a new port.
    void forget_addresses() { forget_ = true; }
    // A datagram to the server from a stranger's address.
    void inject(const datagram_t& datagram);

  private:
    using clock = std::chrono::steady_clock;
    struct flow {
        sockaddr_in client{};
        std::string path;
        int upstream = -1;
        ~flow() { close(upstream); }
    };
    struct packet {
        clock::time_point due;
        uint64_t number;
        std::shared_ptr<flow> of;
        way direction;
        datagram_t bytes;
        bool operator>(const packet& other) const { return due != other.due ? due > other.due : number > other.number; }
    };
    struct path_state {
        conditions now;
        clock::time_point free_at[2];
    };

    void run();
    void read_clients();
    void read_server(const std::shared_ptr<flow>& of);
    void accept(const std::shared_ptr<flow>& of, way direction, datagram_t&& bytes);
    void deliver_due();
    path_state& state_of(const std::string& path);

    const uint16_t server_port_;
    uint16_t port_ = 0;
    int front_ = -1;
    int stop_ = -1;
    int stranger_ = -1;
    tap_t tap_;
    std::map<uint64_t, std::shared_ptr<flow>> flows_;
    std::priority_queue<packet, std::vector<packet>, std::greater<>> waiting_;
    uint64_t next_number_ = 0;
    std::atomic<bool> forget_{false};

    std::mutex mutex_;  // guards what follows
    conditions defaults_;
    std::map<std::string, path_state> paths_;

    std::thread thread_;
};

}  // namespace transport_test

#endif
