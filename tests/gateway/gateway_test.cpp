#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "app/listener.h"
#include "gateway/client_context.h"
#include "gateway/gateway.h"
#include "gateway/gateway_context.h"
#include "gateway/user_list.h"
#include "link/link.h"
#include "tests/fake/fake_platform.h"

namespace tandem {
namespace {

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

std::string handshake(const std::string& secret, const std::string& id = {}) {
    packet_t packet(64);
    packet.pack_string("HSRQ");
    packet.pack_map_raw(2);
    packet.pack_string("c");
    packet.pack_string(secret);
    packet.pack_string("i");
    packet.pack_string(id);
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

std::string request(uint16_t port, const std::string& host = "127.0.0.1") {
    packet_t packet(64);
    packet.pack_string("FWDR");
    packet.pack_map_raw(3);
    packet.pack_string("t");
    packet.pack_string("TCP");
    packet.pack_string("ta");
    packet.pack_string(host);
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

    ~gateway() override { link.destroy(); }

    static std::shared_ptr<credentials_t> secret() { return std::make_shared<shared_secret_t>("secret"); }

    static target_rules_t rules(const std::string& text) {
        target_rules_t made(target_rules_t::without_rules_t::allow);
        EXPECT_EQ(made.add_all(text), "");
        return made;
    }

    void serve(std::shared_ptr<const credentials_t> credentials,
               const std::string& rule_text = "allow * * 127.0.0.0/8 *", const limits_t& limits = {}) {
        options_t options;
        options.is_server = 1;
        peer_control = 0;
        peer_stream = 4;
        shared = std::make_shared<gateway_t>(
            loop.handle(), gateway_t::settings_t{limits, std::move(credentials), rules(rule_text), 0});
        link.register_connection_context_factory(
            [this](void*, void*, const std::string&) { return gateway_context_t::make(shared); });
        start(options);
    }

    // Presents the secret, and waits for the answer's code; -1 when there is none.
    int present(const std::string& secret, const std::string& id = {}) {
        fake::deliver(connection, peer_control, handshake(secret, id));
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (sent_code() < 0 && !connection->deleted && std::chrono::steady_clock::now() < limit) {
            loop.fire_asyncs();
            std::this_thread::yield();
        }
        return sent_code();
    }

    uint64_t refusals(refusals_t::why_t why) const { return shared->guard().refusals->counts()[why]; }

    // Asks for a target on a stream of its own; whether the stream is ended by the gateway.
    bool is_ended(const std::string& request) {
        const uint64_t id = next_stream;
        next_stream += 4;
        fake::deliver(connection, id, request);
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        while (!fake::stream(connection, id).fin && std::chrono::steady_clock::now() < limit) {
            loop.fire_asyncs();
            std::this_thread::yield();
        }
        return fake::stream(connection, id).fin;
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

    // As the transport's callbacks do, this runs while the loop is held.
    template <typename act_t>
    void in_loop(const act_t& act) {
        loop.handle()->ops->enter(loop.handle());
        act();
        loop.handle()->ops->leave(loop.handle());
    }

    void next_connection() {
        connection = fake::connect("tndm");
        in_loop([this] {
            fake::establish(connection);
            fake::deliver(connection, peer_control, marker());
        });
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
    std::shared_ptr<gateway_t> shared;
    link_t link;
    fake::connection_t* connection = nullptr;
    // The peer's first two streams: a server's.
    uint64_t peer_control = 1;
    uint64_t peer_stream = 5;
    uint64_t next_stream = 4;
    int authorized = 0;
    int lost = 0;
    int never_up = 0;
    int refused = 0;
    std::string reason;
};

TEST_F(gateway, a_stranger_gets_no_stream_and_a_client_does) {
    const app::listener_t target({"127.0.0.1", 0});
    serve(secret());
    fake::deliver(connection, peer_stream, request(target.where.port));
    EXPECT_TRUE(is_closed()) << "a stream before the handshake";
    EXPECT_FALSE(is_reached(target, 50));

    next_connection();
    EXPECT_EQ(present("secret"), 0);
    fake::deliver(connection, peer_stream, request(target.where.port));
    EXPECT_TRUE(is_reached(target, 10'000));
}

TEST_F(gateway, a_wrong_id_and_a_wrong_secret_get_the_same_answer) {
    user_list_t users;
    users.set("alice", hash_secret("secret"));
    serve(std::make_shared<user_list_t>(users));
    std::string answers;
    for (const auto& [id, wrong] : {std::pair("alice", "secre"), std::pair("bob", "secret")}) {
        EXPECT_EQ(present(wrong, id), verdict_t::wrong_credentials) << id;
        const std::string answered = fake::sent(connection, peer_control);
        EXPECT_NE(answered.find("wrong id or secret"), std::string::npos);
        EXPECT_TRUE(answers.empty() || answers == answered);
        answers = answered;
        EXPECT_TRUE(fake::stream(connection, peer_control).fin) << "the refusal ends the connection";
        next_connection();
        connection->peer_address = "192.0.2.2";
    }
    connection->peer_address = "192.0.2.3";
    EXPECT_EQ(present("secret", "alice"), 0);
    // Revoked: the connection ends; a change that keeps the client does not end it.
    shared->set_credentials(std::make_shared<user_list_t>(users));
    EXPECT_FALSE(is_closed());
    users.remove("alice");
    shared->set_credentials(std::make_shared<user_list_t>(users));
    EXPECT_TRUE(is_closed());
}

TEST_F(gateway, a_stranger_has_one_small_message_and_little_time) {
    serve(secret());
    fake::connection_t* silent = connection;
    next_connection();
    EXPECT_EQ(present("secret"), 0);
    loop.fire_timers();
    EXPECT_TRUE(silent->deleted);
    EXPECT_FALSE(connection->deleted);

    packet_t noise(16);
    noise.pack_string("PATH");
    const std::string announced("\x80\x01\x00\x00x", 5);  // 64 KiB
    for (const std::string& wrong : {frame(noise), announced, handshake("secret") + handshake("secret")}) {
        next_connection();
        fake::deliver(connection, peer_control, wrong);
        EXPECT_TRUE(is_closed());
    }
}

TEST_F(gateway, forbidden_targets_cannot_be_reached_in_any_form) {
    const app::listener_t target({"127.0.0.1", 0});
    serve(secret(), "deny * * 127.0.0.1 *\nallow * * localhost *\nallow * * 127.0.0.0/8 *\nallow * * * *");
    ASSERT_EQ(present("secret"), 0);
    for (const char* host : {"127.0.0.1", "localhost", "::ffff:127.0.0.1", "::127.0.0.1", "0", "0.0.0.0", "", "*",
                             "[*]", "2130706433", "127.1", "::1", "::"}) {
        EXPECT_TRUE(is_ended(request(target.where.port, host))) << host;
    }
    EXPECT_FALSE(is_reached(target, 50));
    shared->set_rules(rules("allow * tcp 127.0.0.1 *"));
    EXPECT_FALSE(is_ended(request(target.where.port)));
    EXPECT_TRUE(is_reached(target, 10'000));
}

TEST_F(gateway, a_flood_ends_its_own_streams_at_the_limits) {
    const app::listener_t target({"127.0.0.1", 0});
    limits_t limits;
    limits.client.instances = 2;
    limits.client.streams = 4;
    limits.client.queued_bytes = 4096;
    serve(secret(), "allow * * 127.0.0.0/8 *", limits);
    ASSERT_EQ(present("secret"), 0);
    EXPECT_FALSE(is_ended(request(target.where.port)));
    EXPECT_FALSE(is_ended(request(target.where.port)));
    EXPECT_TRUE(is_ended(request(target.where.port)));
    EXPECT_EQ(refusals(refusals_t::instance_limit), 1U);
    EXPECT_FALSE(is_ended(std::string("\x40\x10x", 3))) << "a frame that is never finished";
    EXPECT_TRUE(is_ended(std::string("\x40\x10x", 3)));
    EXPECT_EQ(refusals(refusals_t::stream_limit), 1U);

    packet_t large(8192);
    large.pack_string(std::string(8000, 'x'));
    fake::deliver(connection, peer_stream, frame(large));
    loop.fire_asyncs();
    EXPECT_EQ(refusals(refusals_t::queue_limit), 1U);
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);
    EXPECT_FALSE(fake::stream(connection, peer_stream + 4).fin) << "the others go on";
    EXPECT_FALSE(is_closed());
}

TEST_F(gateway, a_lent_listener_leads_to_the_newest_connection_of_its_client) {
    const app::listener_t listener({"127.0.0.1", 0});
    serve(secret());
    shared->lend(shared_secret_t::client_id, {listener.socket.fd(), "10.0.0.1", 80});
    packet_t report(16);
    report.pack_string("PATH");
    const auto io_count = [&] {
        loop.fire_asyncs();
        return loop.count(fake::watcher_t::io);
    };
    ASSERT_EQ(present("secret"), 0);
    EXPECT_EQ(io_count(), 0U) << "the client may not know yet that it is let in";
    in_loop([&] { fake::deliver(connection, peer_control, frame(report)); });
    EXPECT_EQ(io_count(), 1U);
    fake::connection_t* const first = connection;
    next_connection();
    ASSERT_EQ(present("secret"), 0);
    in_loop([&] { fake::deliver(connection, peer_control, frame(report)); });
    EXPECT_EQ(io_count(), 1U);
    in_loop([&] { fake::disconnect(connection); });
    EXPECT_EQ(io_count(), 1U) << "back to the one that is left";
    in_loop([&] { fake::disconnect(first); });
    EXPECT_EQ(io_count(), 0U);
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
