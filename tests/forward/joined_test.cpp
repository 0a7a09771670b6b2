// Two contexts on loops and threads of their own, joined by the bundled transport: bounds and lifetimes with all
// threads running. The program's tests compare the bytes.
#include <dirent.h>

#include <future>

#include "link/link.h"
#include "tests/forward/forward_fixture.h"
#include "tests/transport/fixture.h"

namespace forward_test {
namespace {

using transport_test::eventually;
using transport_test::loop_thread;

size_t open_descriptors() {
    DIR* const dir = opendir("/proc/self/fd");
    size_t count = 0;
    while (readdir(dir))
        ++count;
    closedir(dir);
    return count;
}

bool send_all(int fd, const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const ssize_t n = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

// The end of what comes, and how much comes.
std::pair<std::string, size_t> receive_to_end(int fd) {
    std::vector<char> buffer(65536);
    size_t total = 0;
    ssize_t n;
    while ((n = recv(fd, buffer.data(), buffer.size(), 0)) > 0)
        total += static_cast<size_t>(n);
    return {n == 0 ? "EOF" : strerror(errno), total};
}

// A socket on a port of 127.0.0.1 that the system chooses.
fd_t bound(int type, uint16_t& port) {
    fd_t fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

// Two links, and a forward to a listener of the test. Without loops the links and their contexts have their own.
struct joined_pair_t {
    explicit joined_pair_t(st_tloop_t* client_loop = nullptr, st_tloop_t* server_loop = nullptr) {
        uint16_t udp_port = 0, target_port = 0;
        target = bound(SOCK_STREAM, target_port);
        EXPECT_EQ(listen(target, 128), 0);
        bound(SOCK_DGRAM, udp_port).reset();  // free again, so that the server can have it
        tandem::options_t options;
        options.cert = transport_test::identity::own().cert;
        options.key = transport_test::identity::own().key;
        options.listen_port = options.server_port = udp_port;
        options.server_host = "127.0.0.1";
        options.client_text = "insecure:yes";
        options.is_server = 1;
        start(server_link, server, options, server_loop);
        options.is_server = 0;
        start(client_link, client, options, client_loop);
        EXPECT_EQ(client_link->path_add("127.0.0.2"), 0);
        EXPECT_TRUE(eventually([&] {
            const std::lock_guard guard(mutex);
            return client && server && client->link_ready() && server->link_ready();
        }));
        forward = client->open_tcp_listen_socket("127.0.0.1", &port);
        EXPECT_EQ(client->add_tcp_forward(forward, "127.0.0.1", target_port, false), forward);
    }
    void start(std::unique_ptr<tandem::link_t>& link, std::shared_ptr<context_t>& context,
               const tandem::options_t& options, st_tloop_t* loop) {
        link = std::make_unique<tandem::link_t>();
        link->register_connection_context_factory([this, &context, loop](void*, void*, const std::string&) {
            auto made = std::make_shared<context_t>(loop);
            made->set_delivery(tandem::delivery_t::lossless);
            const std::lock_guard guard(mutex);
            return context = made;
        });
        EXPECT_EQ(link->create(options, loop), 0);
    }
    bool instances_gone() const {
        return eventually([this] {
            bool empty = true;
            for (const auto& context : {client, server}) {
                const std::lock_guard guard(context->table_lock);
                empty = empty && context->local_streams.empty() && context->remote_streams.empty() &&
                        context->local_instances.empty() && context->remote_instances.empty();
            }
            return empty;
        });
    }

    std::mutex mutex;  // while the factories may run
    std::shared_ptr<context_t> client, server;
    std::unique_ptr<tandem::link_t> client_link, server_link;
    fd_t target;
    unsigned short port = 0;
    int forward = -1;
};

TEST(joined_contexts, a_reader_that_stalls_bounds_what_is_taken_for_it) {
    joined_pair_t pair;
    const fd_t client = connect_to(pair.port);
    const fd_t accepted(accept(pair.target, nullptr, nullptr));
    const std::string block(1 << 16, 'b');
    constexpr size_t bound = 64 << 20;
    size_t taken = 0;
    // Until nothing is taken for a while: then all queues on the way are full.
    pollfd writable{.fd = accepted, .events = POLLOUT, .revents = 0};
    while (taken < bound && poll(&writable, 1, 500) > 0) {
        const ssize_t n = send(accepted, block.data(), block.size(), MSG_DONTWAIT);
        if (n > 0) taken += static_cast<size_t>(n);
    }
    EXPECT_LT(taken, bound);
    {
        const std::lock_guard guard(pair.server->table_lock);
        EXPECT_LE(tndm_get_stream_backlog(pair.server->connection, pair.server->remote_streams.begin()->first),
                  (1u << 20) + (1u << 17));
    }
    shutdown(accepted, SHUT_WR);
    EXPECT_EQ(receive_to_end(client), std::pair(std::string("EOF"), taken));
}

TEST(joined_contexts, carry_a_download_no_further_once_nobody_reads_it) {
    joined_pair_t pair;
    fd_t client = connect_to(pair.port);
    const fd_t accepted(accept(pair.target, nullptr, nullptr));
    auto down = std::async(std::launch::async, [&] {
        while (send_all(accepted, std::string(1 << 20, 'd'))) {
        }
    });
    char byte = 0;
    ASSERT_EQ(recv(client, &byte, 1, MSG_WAITALL), 1);
    client.reset();
    EXPECT_EQ(down.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "its sender must learn of it";
    shutdown(accepted, SHUT_RDWR);
    EXPECT_TRUE(pair.instances_gone());
}

TEST(joined_contexts, leave_nothing_behind_after_many_short_connections) {
    joined_pair_t pair;
    size_t before = 0;
    for (int i = 0; i < 200; ++i) {
        const fd_t client = connect_to(pair.port);
        const fd_t accepted(accept(pair.target, nullptr, nullptr));
        for (const auto& [from, to] : {std::pair(int{client}, int{accepted}), std::pair(int{accepted}, int{client})}) {
            ASSERT_TRUE(send_all(from, "ping"));
            shutdown(from, SHUT_WR);
            EXPECT_EQ(receive_to_end(to), std::pair(std::string("EOF"), size_t{4}));
        }
        if (i == 0) {
            ASSERT_TRUE(pair.instances_gone());
            before = open_descriptors();
        }
    }
    EXPECT_TRUE(pair.instances_gone());
    EXPECT_TRUE(eventually([&] { return open_descriptors() <= before; }));
}

// Contexts on loops that other threads run are destroyed in the middle of transfers.
TEST(joined_contexts, can_be_destroyed_in_the_middle_of_everything) {
    loop_thread client_loop, server_loop;
    for (int round = 0; round < 8; ++round) {
        const bool own = round % 2 == 0;
        auto pair =
            std::make_unique<joined_pair_t>(own ? nullptr : client_loop.get(), own ? nullptr : server_loop.get());
        const fd_t client = connect_to(pair->port);
        const fd_t accepted(accept(pair->target, nullptr, nullptr));
        auto down = std::async(std::launch::async, [&] {
            while (send_all(accepted, std::string(1 << 20, 'd'))) {
            }
        });
        char byte = 0;
        ASSERT_EQ(recv(client, &byte, 1, MSG_WAITALL), 1);
        (round % 4 < 2 ? pair->client : pair->server).reset();
        (round % 4 < 2 ? pair->client_link : pair->server_link).reset();
        pair.reset();
        down.get();
        // A reset, not an end of file: what came is not the whole.
        EXPECT_EQ(receive_to_end(client).first, "Connection reset by peer");
    }
}

TEST(joined_contexts, live_as_briefly_as_they_like_and_take_what_is_registered_too_late) {
    loop_thread running;
    st_tloop_t* const idle = tloop_create("libev", false, 100000, 0);
    const size_t before = open_descriptors();
    const auto add_forward = [](context_t& context) {
        unsigned short port = 0;
        context.add_tcp_forward(context.open_tcp_listen_socket("127.0.0.1", &port), "127.0.0.1", 1, false);
    };
    for (int i = 0; i < 20; ++i) {
        context_t own(nullptr), ended(nullptr), on_running(running.get()), on_idle(idle);
        add_forward(own);
        add_forward(on_idle);
        ended.on_destroy();
        add_forward(ended);
    }
    EXPECT_EQ(open_descriptors(), before);
    idle->ops->destroy(idle);
}

TEST(joined_contexts, survive_destruction_on_their_own_thread) {
    struct exposed_t : context_t {
        using advanced_connection_context_t::loop;
        using context_t::context_t;
    };
    const size_t before = open_descriptors();
    struct {
        std::unique_ptr<exposed_t> context = std::make_unique<exposed_t>(nullptr);
        std::promise<void> gone;
    } doomed;
    st_tloop_t* const loop = doomed.context->loop;
    const auto destroy = [](st_tloop_t*, void*, void* user) {
        auto& it = *static_cast<decltype(doomed)*>(user);
        it.context.reset();
        it.gone.set_value();
    };
    // Nobody but its own thread uses the loop from the moment when this lets go of it.
    loop->ops->enter(loop);
    void* const async = loop->ops->async_create(loop, destroy, &doomed);
    loop->ops->async_start(loop, async);
    loop->ops->async_send(loop, async);
    loop->ops->leave(loop);
    doomed.gone.get_future().wait();
    EXPECT_TRUE(eventually([&] { return open_descriptors() == before; }));
}

}  // namespace
}  // namespace forward_test
