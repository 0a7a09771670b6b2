// Two contexts on real loops, joined back to back: bytes, bounds and lifetimes with all threads running.
#include "tests/forward/joined_transport.h"

#include <dirent.h>

#include <atomic>
#include <future>

#include "tests/forward/forward_fixture.h"

namespace forward_test {
namespace {

// A loop of the caller's, run by a thread of its own.
class running_loop_t {
  public:
    running_loop_t() : loop_(tloop_create("libev", false, 100000, 0)), thread_([this] { loop_->ops->run(loop_); }) {}
    ~running_loop_t() {
        loop_->ops->break_loop(loop_, TLOOP_BREAK_ALL);
        thread_.join();
        loop_->ops->destroy(loop_);
    }
    st_tloop_t* handle() { return loop_; }

  private:
    st_tloop_t* loop_;
    std::thread thread_;
};

std::shared_ptr<context_t> make_context(st_tloop_t* loop) {
    auto context = std::make_shared<context_t>(loop);
    context->set_delivery(tandem::delivery_t::lossless);
    return context;
}

std::string random_text(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string text(size, '\0');
    for (char& c : text) {
        c = static_cast<char>(random());
    }
    return text;
}

bool send_all(int fd, const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const ssize_t n = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

// Until end of file; a failure is part of the result.
std::string receive_all(int fd) {
    std::string out;
    char buffer[65536];
    for (;;) {
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n < 0) return out + " failed: " + strerror(errno);
        if (n == 0) return out;
        out.append(buffer, static_cast<size_t>(n));
    }
}

std::string both_ways(int fd, const std::string& text) {
    auto received = std::async(std::launch::async, receive_all, fd);
    EXPECT_TRUE(send_all(fd, text));
    shutdown(fd, SHUT_WR);
    return received.get();
}

size_t open_descriptors() {
    size_t count = 0;
    DIR* const dir = opendir("/proc/self/fd");
    while (readdir(dir)) {
        ++count;
    }
    closedir(dir);
    return count;
}

// A pair of contexts with one forward to a listener of the test.
struct joined_pair_t {
    explicit joined_pair_t(st_tloop_t* client_loop = nullptr, st_tloop_t* server_loop = nullptr)
        : client(make_context(client_loop)), server(make_context(server_loop)), link(client, server, 1) {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        target.reset(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(bind(target, reinterpret_cast<sockaddr*>(&any), sizeof(any)), 0);
        EXPECT_EQ(listen(target, 128), 0);
        socklen_t length = sizeof(any);
        getsockname(target, reinterpret_cast<sockaddr*>(&any), &length);
        forward = client->open_tcp_listen_socket("127.0.0.1", &port);
        EXPECT_EQ(client->add_tcp_forward(forward, "127.0.0.1", ntohs(any.sin_port), false), forward);
    }
    bool instances_gone() {
        for (int i = 0; i < 1000; ++i) {
            bool empty = true;
            for (const auto& context : {client, server}) {
                const std::lock_guard guard(context->table_lock);
                empty = empty && context->local_streams.empty() && context->remote_streams.empty() &&
                        context->local_instances.empty() && context->remote_instances.empty();
            }
            if (empty) return true;
            poll(nullptr, 0, 10);
        }
        return false;
    }

    std::shared_ptr<context_t> client;
    std::shared_ptr<context_t> server;
    joined::link_t link;
    fd_t target;
    unsigned short port = 0;
    int forward = -1;
};

TEST(joined_contexts, carry_many_connections_byte_for_byte) {
    joined_pair_t pair;
    constexpr unsigned connections = 12;
    std::vector<std::future<void>> work;
    for (unsigned i = 0; i < connections; ++i) {
        work.push_back(std::async(std::launch::async, [&, i] {
            const std::string up = random_text(i * 200003, i), down = random_text((connections - i) * 200003, 100 + i);
            // The target learns which connection it has from the first byte.
            const fd_t client = connect_to(pair.port);
            EXPECT_TRUE(both_ways(client, static_cast<char>(i) + up) == down) << i;
        }));
        work.push_back(std::async(std::launch::async, [&] {
            const fd_t accepted(accept(pair.target, nullptr, nullptr));
            char number = 0;
            ASSERT_EQ(recv(accepted, &number, 1, MSG_WAITALL), 1);
            const auto k = static_cast<unsigned>(number);
            const std::string up = random_text(k * 200003, k), down = random_text((connections - k) * 200003, 100 + k);
            EXPECT_TRUE(both_ways(accepted, down) == up) << k;
        }));
    }
    for (auto& one : work)
        one.get();
    EXPECT_TRUE(pair.instances_gone());
}

TEST(joined_contexts, a_reader_that_stalls_bounds_what_is_taken_for_it) {
    joined_pair_t pair;
    const fd_t client = connect_to(pair.port);
    const fd_t accepted(accept(pair.target, nullptr, nullptr));
    const std::string block = random_text(1 << 16, 3);
    constexpr size_t bound = 64 << 20;
    size_t taken = 0;
    // Until nothing is taken for a while: then all queues on the way are full.
    pollfd writable{.fd = accepted, .events = POLLOUT, .revents = 0};
    while (taken < bound && poll(&writable, 1, 500) > 0) {
        const ssize_t n = send(accepted, block.data(), block.size(), MSG_DONTWAIT);
        if (n > 0) taken += static_cast<size_t>(n);
    }
    EXPECT_LT(taken, bound);
    EXPECT_LE(joined::link_t::longest_queue(), (1u << 20) + (1u << 17));
    shutdown(accepted, SHUT_WR);
    EXPECT_EQ(receive_all(client).size(), taken);
}

TEST(joined_contexts, leave_nothing_behind_after_many_short_connections) {
    joined_pair_t pair;
    const auto one = [&] {
        const fd_t client = connect_to(pair.port);
        const fd_t accepted(accept(pair.target, nullptr, nullptr));
        ASSERT_TRUE(send_all(client, "ping"));
        shutdown(client, SHUT_WR);
        EXPECT_EQ(receive_all(accepted), "ping");
        ASSERT_TRUE(send_all(accepted, "pong"));
        shutdown(accepted, SHUT_WR);
        EXPECT_EQ(receive_all(client), "pong");
    };
    one();
    ASSERT_TRUE(pair.instances_gone());
    const size_t before = open_descriptors();
    for (int i = 0; i < 300; ++i) {
        one();
    }
    EXPECT_TRUE(pair.instances_gone());
    EXPECT_EQ(open_descriptors(), before);
}

// Contexts on loops that other threads run are destroyed in the middle of transfers, by any thread.
TEST(joined_contexts, can_be_destroyed_in_the_middle_of_everything) {
    running_loop_t client_loop, server_loop;
    for (int round = 0; round < 8; ++round) {
        const bool own = round % 2 == 0;
        auto pair =
            std::make_unique<joined_pair_t>(own ? nullptr : client_loop.handle(), own ? nullptr : server_loop.handle());
        const fd_t client = connect_to(pair->port);
        const fd_t accepted(accept(pair->target, nullptr, nullptr));
        auto down = std::async(std::launch::async, [&] { return !send_all(accepted, random_text(32 << 20, 5)); });
        char byte = 0;
        ASSERT_EQ(recv(client, &byte, 1, MSG_WAITALL), 1);
        pair->link.disconnect(round % 4 < 2);
        pair.reset();
        EXPECT_TRUE(down.get());
        // A reset, not an end of file: what came is not the whole.
        EXPECT_TRUE(receive_all(client).ends_with("failed: Connection reset by peer"));
    }
}

TEST(joined_contexts, live_as_briefly_as_they_like) {
    running_loop_t running;
    st_tloop_t* const idle = tloop_create("libev", false, 100000, 0);
    const size_t before = open_descriptors();
    for (int i = 0; i < 20; ++i) {
        context_t own(nullptr);
        context_t on_running(running.handle());
        context_t on_idle(idle);
        unsigned short port = 0;
        const int fd = own.open_tcp_listen_socket("127.0.0.1", &port);
        own.add_tcp_forward(fd, "127.0.0.1", 1, false);
        port = 0;
        const int other = on_idle.open_tcp_listen_socket("127.0.0.1", &port);
        on_idle.add_tcp_forward(other, "127.0.0.1", 1, false);
    }
    EXPECT_EQ(open_descriptors(), before);
    idle->ops->destroy(idle);
}

TEST(joined_contexts, registering_after_the_end_leaks_nothing) {
    const size_t before = open_descriptors();
    {
        context_t context(nullptr);
        context.on_destroy();
        unsigned short port = 0;
        context.add_tcp_forward(context.open_tcp_listen_socket("127.0.0.1", &port), "t", 1, false);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(joined_contexts, survive_destruction_on_their_own_thread) {
    struct exposed_t : context_t {
        using advanced_connection_context_t::loop;
        using context_t::context_t;
    };
    const size_t before = open_descriptors();
    auto context = std::make_unique<exposed_t>(nullptr);
    st_tloop_t* const loop = context->loop;
    struct job_t {
        std::unique_ptr<exposed_t> context;
        std::promise<void> go;
        std::promise<void> done;
        void* async = nullptr;
    } job;
    loop->ops->enter(loop);
    job.context = std::move(context);
    job.async = loop->ops->async_create(
        loop,
        [](st_tloop_t*, void*, void* user) {
            auto& task = *static_cast<job_t*>(user);
            task.go.get_future().wait();
            task.context.reset();
            task.done.set_value();
        },
        &job);
    loop->ops->async_start(loop, job.async);
    loop->ops->leave(loop);
    loop->ops->async_send(loop, job.async);
    // From here on nobody but its own thread uses the loop.
    job.go.set_value();
    job.done.get_future().wait();
    for (int i = 0; i < 1000 && open_descriptors() != before; ++i) {
        poll(nullptr, 0, 10);
    }
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
}  // namespace forward_test
