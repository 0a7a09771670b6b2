#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "app/listener.h"
#include "gateway/client_context.h"
#include "gateway/gateway_context.h"
#include "link/link.h"
#include "tests/fake/fake_platform.h"

namespace tandem {
namespace {

constexpr uint64_t peer_control = 1;
constexpr uint64_t peer_stream = 5;

std::string frame(const packet_t& packet) {
    const uint32_t size = packet.size();
    std::string text;
    text += static_cast<char>(0x40 | size >> 8);
    text += static_cast<char>(size);
    return text + std::string(reinterpret_cast<const char*>(packet.data()), size);
}

std::string marker() {
    packet_t packet(8);
    packet.pack_string("TC");
    return frame(packet);
}

std::string handshake(const std::string& secret) {
    packet_t packet(64);
    packet.pack_string("HSRQ");
    packet.pack_map_raw(1);
    packet.pack_string("c");
    packet.pack_string(secret);
    return frame(packet);
}

std::string answer(int16_t code, const std::string& message) {
    packet_t packet(64);
    packet.pack_string("HSAK");
    packet.pack_map_raw(2);
    packet.pack_string("r");
    packet.pack_int16(code);
    packet.pack_string("s");
    packet.pack_string(message);
    return frame(packet);
}

std::string request(uint16_t port) {
    packet_t packet(64);
    packet.pack_string("FWDR");
    packet.pack_map_raw(3);
    packet.pack_string("t");
    packet.pack_string("TCP");
    packet.pack_string("ta");
    packet.pack_string("127.0.0.1");
    packet.pack_string("tp");
    packet.pack_uint16(port);
    return frame(packet);
}

// Whether somebody connects to the listener within the time.
bool is_reached(const app::listener_t& listener, int limit_ms) {
    pollfd ready{listener.socket.fd(), POLLIN, 0};
    return poll(&ready, 1, limit_ms) == 1;
}

// A link with one kind of context on the fake platform.
class gateway : public testing::Test, public client_observer_t {
  protected:
    gateway() { fake::reset(); }

    void serve(std::shared_ptr<authorizer_t> authorizer) {
        options_t options;
        options.is_server = 1;
        link.register_connection_context_factory([this, authorizer](void*, void*, const std::string&) {
            return std::make_shared<gateway_context_t>(loop.handle(), authorizer);
        });
        start(options);
    }

    void connect_client(const app::listener_t& listener) {
        const std::vector<listening_forward_t> forwards = {{listener.socket.fd(), "10.0.0.1", 80}};
        link.register_connection_context_factory([this, forwards](void*, void*, const std::string&) {
            return std::make_shared<client_context_t>(loop.handle(), identity_t{"id", "secret", "test", "here"},
                                                      forwards, *this);
        });
        options_t options;
        options.server_host = "server";
        start(options);
    }

    void start(const options_t& options) {
        ASSERT_EQ(link.create(options, loop.handle()), 0);
        next_connection();
    }

    void next_connection() {
        connection = fake::connect("tndm");
        fake::establish(connection);
        fake::deliver(connection, peer_control, marker());
    }

    bool is_closed() const { return connection->deleted; }

    // The code of the answer to a handshake, as it travels.
    int sent_code() {
        const std::string bytes = fake::sent(connection, peer_control);
        const size_t at = bytes.find("\xa1r");
        return at == std::string::npos ? -1 : static_cast<uint8_t>(bytes.at(at + 2));
    }

    void on_authorized() override { ++authorized; }
    void on_refused(int code, const std::string& message) override {
        refused = code;
        reason = message;
    }
    void on_disconnected(bool was_authorized) override { ++(was_authorized ? lost : never_up); }

    fake::loop_t loop;
    link_t link;
    fake::connection_t* connection = nullptr;
    int authorized = 0;
    int lost = 0;
    int never_up = 0;
    int refused = 0;
    std::string reason;
};

TEST_F(gateway, a_stranger_gets_no_stream_and_a_client_does) {
    const app::listener_t target({"127.0.0.1", 0});
    serve(std::make_shared<secret_authorizer_t>("secret"));
    fake::deliver(connection, peer_stream, request(target.where.port));
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);
    EXPECT_EQ(fake::sent(connection, peer_stream), std::string(1, 0)) << "an empty frame";
    loop.fire_asyncs();
    EXPECT_FALSE(is_reached(target, 50));

    fake::deliver(connection, peer_control, handshake("secret"));
    EXPECT_EQ(sent_code(), 0);
    fake::deliver(connection, peer_stream + 4, request(target.where.port));
    EXPECT_TRUE(is_reached(target, 10'000));
}

TEST_F(gateway, a_wrong_secret_is_refused_with_a_code_and_a_reason) {
    serve(std::make_shared<secret_authorizer_t>("secret"));
    for (const char* wrong : {"", "secre", "secret ", "Secret"}) {
        fake::deliver(connection, peer_control, handshake(wrong));
        EXPECT_EQ(sent_code(), secret_authorizer_t::wrong_secret) << wrong;
        EXPECT_NE(fake::sent(connection, peer_control).find("wrong secret"), std::string::npos);
        EXPECT_TRUE(fake::stream(connection, peer_control).fin) << "the refusal ends the connection";
        next_connection();
    }
}

struct careless_authorizer_t : authorizer_t {
    int authorize(const presented_t&, std::string&) override { return 0x10000; }
};

TEST_F(gateway, a_refusal_never_travels_as_success) {
    serve(std::make_shared<careless_authorizer_t>());
    fake::deliver(connection, peer_control, handshake("secret"));
    EXPECT_GT(sent_code(), 0);
}

TEST_F(gateway, a_connection_that_nobody_authorises_is_closed) {
    serve(std::make_shared<secret_authorizer_t>("secret"));
    fake::connection_t* silent = connection;
    next_connection();
    fake::deliver(connection, peer_control, handshake("secret"));
    loop.fire_timers();
    EXPECT_TRUE(silent->deleted);
    EXPECT_FALSE(connection->deleted);
}

TEST_F(gateway, a_stranger_cannot_make_the_server_keep_a_large_frame) {
    serve(std::make_shared<secret_authorizer_t>("secret"));
    const std::string announced("\x80\x01\x00\x00", 4);  // 64 KiB
    fake::deliver(connection, peer_stream, announced + "x");
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);

    fake::deliver(connection, peer_control, handshake("secret"));
    fake::deliver(connection, peer_stream + 4, announced + "x");
    EXPECT_FALSE(fake::stream(connection, peer_stream + 4).fin) << "a client's frame is waited for";
}

TEST_F(gateway, a_client_opens_its_forwards_once_authorised_and_again_after_a_loss) {
    const app::listener_t listener({"127.0.0.1", 0});
    connect_client(listener);
    loop.fire_asyncs();
    EXPECT_EQ(loop.count(fake::watcher_t::io), 0U) << "nothing is accepted before the server has answered";

    for (int round = 1; round <= 2; ++round) {
        fake::deliver(connection, peer_control, answer(0, ""));
        loop.fire_asyncs();
        EXPECT_EQ(authorized, round);
        ASSERT_EQ(loop.count(fake::watcher_t::io), 1U);
        EXPECT_EQ(loop.watchers(fake::watcher_t::io)[0].fd, listener.socket.fd());
        fake::disconnect(connection);
        EXPECT_EQ(lost, round);
        EXPECT_EQ(loop.count(fake::watcher_t::io), 0U);
        EXPECT_NE(fcntl(listener.socket.fd(), F_GETFD), -1) << "the socket stays open between connections";
        next_connection();
    }
}

TEST_F(gateway, a_refused_client_is_told_and_opens_nothing) {
    const app::listener_t listener({"127.0.0.1", 0});
    connect_client(listener);
    fake::deliver(connection, peer_control, answer(7, "no"));
    loop.fire_asyncs();
    EXPECT_EQ(refused, 7);
    EXPECT_EQ(reason, "no");
    EXPECT_EQ(authorized, 0);
    EXPECT_EQ(loop.count(fake::watcher_t::io), 0U);
    EXPECT_TRUE(fake::stream(connection, peer_control).fin);
}

TEST_F(gateway, a_server_cannot_reach_into_the_clients_network) {
    const app::listener_t listener({"127.0.0.1", 0});
    const app::listener_t inner({"127.0.0.1", 0});
    connect_client(listener);
    fake::deliver(connection, peer_control, answer(0, ""));
    fake::deliver(connection, peer_stream, request(inner.where.port));
    loop.fire_asyncs();
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);
    EXPECT_FALSE(is_reached(inner, 50));
}

TEST_F(gateway, a_server_that_does_not_answer_loses_the_client) {
    const app::listener_t listener({"127.0.0.1", 0});
    connect_client(listener);
    loop.fire_timers();
    EXPECT_TRUE(is_closed());
    fake::disconnect(connection);
    EXPECT_EQ(never_up, 1);
}

}  // namespace
}  // namespace tandem
