// A client and a server of the transport in one process, each with a loop on a thread of its own, and a record of
// everything that they are told.
#ifndef TANDEM_TESTS_TRANSPORT_FIXTURE_H
#define TANDEM_TESTS_TRANSPORT_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "link/tloop.h"
#include "link/tndm.h"
#include "tests/transport/network.h"

namespace transport_test {

using namespace std::chrono_literals;
using milliseconds = std::chrono::milliseconds;
using bytes_t = std::vector<uint8_t>;

// Sanitizers make everything several times slower: they look for races and wild pointers, not for throughput.
#ifdef TRANSPORT_SMALL
inline constexpr size_t scale = 8;
#else
inline constexpr size_t scale = 1;
#endif
inline constexpr milliseconds patience = 30s;

bytes_t random_content(size_t size, uint32_t seed);

// A loop and the thread that runs it.
class loop_thread {
  public:
    loop_thread() : loop_(tloop_create("libev", false, 0, 0)), thread_([this] { loop_->ops->run(loop_); }) {}
    ~loop_thread() {
        loop_->ops->break_loop(loop_, TLOOP_BREAK_ALL);
        thread_.join();
        loop_->ops->destroy(loop_);
    }
    loop_thread(const loop_thread&) = delete;
    loop_thread& operator=(const loop_thread&) = delete;
    st_tloop_t* get() const { return loop_; }

  private:
    st_tloop_t* loop_;
    std::thread thread_;
};

inline const std::vector<std::string> one_path = {"127.0.0.2"};
inline const std::vector<std::string> two_paths = {"127.0.0.2", "127.0.0.3"};

// A self-signed certificate in files; made once a process.
struct identity {
    std::string cert, key;
    std::string pin;  // 64 hexadecimal digits
    static const identity& own();
    static const identity& other();
};

struct settings {
    std::shared_ptr<loop_thread> loop = {};  // null: one of its own
    uint32_t streams = 100;
    const char* congestion = "bbr";
    const char* alpn = "test";
    std::string trust = "insecure:yes";
    uint32_t linger_seconds = 30;
    uint32_t statistics_ms = 0;
    const char* schedule = nullptr;
};

// One end. Every `wait` looks at the record again after each callback.
class side {
  public:
    struct stream_record {
        bytes_t bytes;
        bool fin = false;
        uint64_t size = 0;  // of all deliveries, also when the bytes are not kept
    };
    struct connection_record {
        bytes_t id;
        bool over = false;
        std::map<uint64_t, stream_record> streams;
    };
    struct figures {
        uint64_t rtt, window, rate;
    };

    explicit side(const settings& s);
    virtual ~side() { destroy(); }
    side(const side&) = delete;
    side& operator=(const side&) = delete;

    void* instance() const { return instance_; }
    st_tloop_t* loop() const { return loop_->get(); }
    void destroy();

    // Under the record's lock.
    template <typename P>
    bool wait(P&& happened, milliseconds limit = patience) {
        std::unique_lock lock(mutex_);
        return changed_.wait_until(lock, std::chrono::system_clock::now() + limit, std::forward<P>(happened));
    }
    template <typename F>
    auto look(F&& at) {
        const std::lock_guard lock(mutex_);
        return at();
    }

    // The newest connection that lives; null when none comes within `limit`.
    void* connected(milliseconds limit = patience);
    bool disconnected(void* connection, milliseconds limit = patience);
    // Waits until `count` bytes of a stream have come (and its end, if wanted).
    bool received(void* connection, uint64_t stream, uint64_t count, bool fin, milliseconds limit = patience);
    bytes_t content(void* connection, uint64_t stream);
    // Waits for the stream's end; everything must be there.
    void expect_content(void* connection, uint64_t stream, const bytes_t& expected);
    uint64_t size(void* connection, uint64_t stream);
    size_t live();

    static uint64_t open(void* connection, bool one_way = false) {
        return tndm_get_next_local_stream_id(connection, one_way);
    }
    static int write(void* connection, uint64_t stream, const bytes_t& content, bool fin = false) {
        return tndm_add_to_stream(connection, stream, content.data(), static_cast<uint32_t>(content.size()), fin);
    }
    // All of it, in pieces of `piece()` bytes; the last one ends the stream, or an end without bytes does.
    static void write_pieces(void* connection, uint64_t stream, const bytes_t& content,
                             const std::function<size_t()>& piece, bool empty_end = false);
    // Opens a stream and queues everything on it.
    static uint64_t send(void* connection, const bytes_t& content, bool fin, bool one_way = false);
    std::vector<st_tndm_path_info_t> paths(void* connection) const;
    // Those that have a subflow now.
    std::vector<st_tndm_path_info_t> carried_paths(void* connection) const;

    // Run on the loop's thread, after the record was written; set them before start().
    std::function<void(void*connection)> on_established, on_disconnected;
    std::function<void(void* connection, uint64_t stream, bool fin, const uint8_t* data, uint32_t size)> on_data;
    std::function<void(void* connection, uint64_t stream)> on_writable;
    std::function<void(const char*path)> on_create_path, on_path_broken;
    std::function<void(int)> on_problem;
    std::atomic<bool> keep_content{true};

    // The record; only inside wait() and look().
    std::map<void*, connection_record> connections;
    std::vector<void*> established;
    std::vector<std::pair<void*, uint64_t>> writable;
    std::vector<std::pair<int, std::string>> problems;
    std::vector<figures> statistics;

  protected:
    // Puts the callbacks that both kinds have into their record.
    template <typename R>
    void fill(R& record) const {
        record.alpn = settings_.alpn;
        record.on_established = established_cb;
        record.on_disconnected = disconnected_cb;
        record.on_data = data_cb;
        tndm_set_writable_callback(instance(), writable_cb);
    }
    static void established_cb(void* instance, const st_tndm_connection_id_t* id, void* connection);
    static void disconnected_cb(void* instance, const st_tndm_connection_id_t* id, void* connection);
    static void data_cb(void* instance, void* connection, uint64_t stream, int fin, const uint8_t* data, uint32_t len,
                        int* out);
    static int create_path_cb(void* opaque, const char* path);
    static int path_broken_cb(void* opaque, const char* path, int socket);
    static void statistics_cb(void* instance, void* connection, uint64_t rtt, uint64_t window, uint64_t in_flight,
                              uint64_t rate, uint64_t lost);
    static void writable_cb(void* instance, void* connection, uint64_t stream);
    static void problem_cb(void* instance, int code, const char* text);

    settings settings_;

  private:
    template <typename R>
    static side* note(void* instance, R&& change);
    template <typename... T, typename R>
    static void tell(void* instance, std::function<void(T...)> side::*heard, R&& change,
                     std::type_identity_t<T>... what);

    std::shared_ptr<loop_thread> loop_;
    std::atomic<void*> instance_{nullptr};
    std::mutex mutex_;
    std::condition_variable changed_;
};

class server_side : public side {
  public:
    // Port 0: any. Does not start.
    explicit server_side(const settings& s = {}, uint16_t port = 0, const char* address = "127.0.0.1");
    ~server_side() override;
    int start();
    uint16_t port() const { return port_; }
    int socket() const { return socket_; }

  private:
    int socket_;
    uint16_t port_;
};

class client_side : public side {
  public:
    explicit client_side(const settings& s = {}) : side(s) {}
    ~client_side() override { destroy(); }
    int start(uint16_t port, const std::string& host = "127.0.0.1");
    // The start and each path must succeed.
    void run(uint16_t port, const std::vector<std::string>& paths = one_path, const std::string& host = "127.0.0.1");
    int add(const std::string& path) { return tndm_add_path(instance(), path.c_str()); }
};

// For what no callback announces.
template <typename P>
bool eventually(P&& happened, milliseconds limit = patience) {
    for (const auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
        if (happened()) {
            return true;
        }
        std::this_thread::sleep_for(2ms);
    }
    return happened();
}

// A server and a client that is (or will be) connected to it, perhaps through a network.
class pair_test : public ::testing::Test {
  protected:
    // Starts both (a server that is there has been started) and waits until the client has a connection and both ends
    // have as many lanes as there are paths.
    void start(const std::vector<std::string>& paths, const settings& of_client = {}, const settings& of_server = {});
    // The same through a new network.
    void start_over(const std::vector<std::string>& paths, const conditions& everywhere = {},
                    const settings& of_client = {}, network::tap_t tap = {});
    // Bytes both ways over streams of both kinds; everything must come out as it went in.
    void exchange(size_t bytes, unsigned streams);
    void reset() {
        client.reset();
        server.reset();
        net.reset();
    }

    std::unique_ptr<network> net;
    std::unique_ptr<server_side> server;
    std::unique_ptr<client_side> client;
    void* at_server = nullptr;
    void* at_client = nullptr;
};

inline double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace transport_test

#endif
