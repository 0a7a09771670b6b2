// A network in virtual time: links between one server and one client, the sockets at their ends, timers, and a loop.
//
// The transport above is the real one, whole: edge.cpp puts this world where it would otherwise meet the kernel (UDP
// sockets, readiness, timers, the clock). Time advances only from one event to the next, so a run depends on nothing
// but its settings and seeds.
//
// One world a thread: it is the current one from its construction to its destruction.
#ifndef TANDEM_BENCH_GRID_WORLD_H
#define TANDEM_BENCH_GRID_WORLD_H

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/rig/pipe.h"
#include "link/tloop.h"
#include "platform/tndm/core/time.h"
#include "platform/tndm/udp/address.h"

namespace grid {

using tndm::core::duration;
using tndm::core::instant;

// One path, the same in both directions.
struct path_settings {
    double mbit;        // capacity, Mbit/s
    duration rtt;       // without queueing
    duration queueing;  // what a full queue adds at the most
    double loss;        // share of the packets, each on its own
    uint64_t seed;      // of the losses

    uint64_t queue_bytes() const;
};

class world {
  public:
    explicit world(std::span<const path_settings> paths);
    ~world();
    world(const world&) = delete;
    world& operator=(const world&) = delete;
    static world& current();

    // --- whoever runs it ---
    st_tloop_t* loop() { return &loop_; }
    int server_socket() const { return server_; }
    static const char* server_address();
    static constexpr uint16_t server_port = 443;
    // The client's end of a path; each call makes a socket.
    int open_client_socket(size_t on);
    // Lets time pass until `done`; false when `limit` came first, or when nothing would ever happen again.
    bool run_until(const bool& done, instant limit);
    const rig::pipe& towards_client(size_t index) const { return *paths_.at(index).down; }

    // --- the edge ---
    instant now() const { return now_; }
    void watch(int fd, const std::function<void()>* on_readable);
    void unwatch(int fd);
    int add_timer(std::function<void()> on_due);
    void set_timer(int id, instant deadline) { timers_.at(id).deadline = deadline; }
    void remove_timer(int id) { timers_.erase(id); }
    const tndm::endpoint& address_of(int fd) const { return sockets_.at(fd).local; }
    void send(int fd, const tndm::endpoint& to, std::span<const uint8_t> datagram, int ecn);
    // A datagram that has arrived; its bytes live until forget_read().
    struct arrival {
        std::span<const uint8_t> data;
        tndm::endpoint from;
        uint8_t ecn;
    };
    bool receive(int fd, arrival& out);
    void forget_read();

  private:
    struct path {
        std::unique_ptr<rig::pipe> up;
        std::unique_ptr<rig::pipe> down;
    };
    struct socket {
        tndm::endpoint local;
        size_t path = 0;
        std::deque<rig::pipe::packet> inbox = {};
        const std::function<void()>* on_readable = nullptr;
    };
    struct timer {
        std::function<void()> on_due;
        instant deadline = tndm::core::never;
    };
    struct async {
        tloop_async_cb callback;
        void* user;
        bool sent = false;
    };

    static const st_tloop_ops_t& operations();
    static world& of(st_tloop_t* loop);
    instant next_event() const;
    void collect();
    void collect(rig::pipe& from, bool to_client);
    bool run_asyncs();
    void run_sockets();
    void run_timers();

    st_tloop_t loop_;
    instant now_{std::chrono::seconds(1)};
    rig::slot_pool pool_;
    std::vector<path> paths_;
    std::map<int, socket> sockets_;
    int next_socket_ = 1 << 20;  // no descriptor of the process has such a number
    int server_;
    std::map<int, timer> timers_;
    int next_timer_ = 0;
    std::vector<std::unique_ptr<async>> asyncs_;
    std::vector<rig::slot*> read_;  // slots that receive() has handed out
};

}  // namespace grid

#endif
