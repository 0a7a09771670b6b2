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
#include "tests/fake/frames.h"

namespace tandem {
namespace {

using fake::frame;
using fake::message;
using fake::request;

std::string handshake(const std::string& secret, const std::string& id = {}) {
    return message("HSRQ", {{"c", secret}, {"i", id}});
}

std::string answer(long long code, const std::string& text) {
    return message("HSAK", {{"r", code}, {"s", text}});
}

std::string request_of(const app::listener_t& target) {
    return request("TCP", "127.0.0.1", target.where.port);
}

const std::string report = frame("\xA4PATH");

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
        link.register_connection_context_factory([this](void*, void* made, const std::string&) {
            auto context = gateway_context_t::make(shared, made);
            last = context;
            return context;
        });
        start(options);
    }

    // Runs the loop until `done`; whether that came.
    template <typename done_t>
    bool turns(const done_t& done, std::chrono::milliseconds limit) {
        for (const auto end = std::chrono::steady_clock::now() + limit; !done();) {
            if (std::chrono::steady_clock::now() > end) return false;
            loop.fire_asyncs();
            std::this_thread::yield();
        }
        return true;
    }

    // Presents the secret, and waits for the answer's code; -1 when there is none.
    int present(const std::string& secret, const std::string& id = {}) {
        fake::deliver(connection, peer_control, handshake(secret, id));
        turns([&] { return sent_code() >= 0 || connection->deleted; }, std::chrono::seconds(20));
        return sent_code();
    }

    uint64_t refusals(refusals_t::why_t why) const { return shared->guard().refusals->counts()[why]; }

    // Asks for a target on a stream of its own; whether the stream is ended by the gateway, which is waited for when it
    // is expected.
    bool is_ended(const std::string& asked, bool expected) {
        const uint64_t id = next_stream;
        next_stream += 4;
        fake::deliver(connection, id, asked);
        return turns([&] { return fake::stream(connection, id).fin; },
                     std::chrono::milliseconds(expected ? 20'000 : 200));
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

    void next_connection(const std::string& first = fake::marker) {
        connection = fake::connect("tndm");
        loop.hold([&] {
            fake::establish(connection);
            if (!connection->deleted) fake::deliver(connection, peer_control, first);
        });
    }

    // Told why, with the end of a control stream, and deleted when it does not go by itself.
    void expect_broken_off() {
        EXPECT_EQ(sent_code(), verdict_t::wrong_protocol);
        EXPECT_TRUE(fake::stream(connection, peer_control).fin || fake::stream(connection, peer_control ^ 1).fin);
        loop.fire_timers();
        EXPECT_TRUE(connection->deleted);
    }

    // The code of the answer to a handshake, as it travels.
    int sent_code() {
        const std::string bytes = fake::sent(connection, peer_control) + fake::sent(connection, peer_control ^ 1);
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
    std::shared_ptr<gateway_context_t> last;
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
    fake::deliver(connection, peer_stream, request_of(target));
    expect_broken_off();
    EXPECT_FALSE(is_reached(target, 50));

    next_connection();
    EXPECT_EQ(present("secret"), 0);
    fake::deliver(connection, peer_stream, request_of(target));
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
    EXPECT_FALSE(connection->deleted);
    users.remove("alice");
    shared->set_credentials(std::make_shared<user_list_t>(users));
    EXPECT_TRUE(connection->deleted);
}

TEST_F(gateway, a_stranger_has_one_small_message_and_little_time) {
    serve(secret());
    fake::connection_t* silent = connection;
    next_connection();
    EXPECT_EQ(present("secret"), 0);
    loop.fire_timers();
    EXPECT_TRUE(silent->deleted);
    EXPECT_FALSE(connection->deleted);

    const std::string announced("\x80\x01\x00\x00x", 5);  // 64 KiB
    for (const std::string& wrong : {report, announced, handshake("secret") + handshake("secret")}) {
        next_connection();
        fake::deliver(connection, peer_control, wrong);
        expect_broken_off();
    }
    // However it is cut: frames before the marker, and one message in one byte after the other.
    next_connection(fake::frame("x") + fake::marker);
    expect_broken_off();
    next_connection();
    const std::string endless = handshake(std::string(4000, 'x')).substr(0, 2) + std::string(5000, 'x');
    size_t taken = 0;
    for (; taken < endless.size() && sent_code() < 0; ++taken)
        fake::deliver(connection, peer_control, endless.substr(taken, 1));
    EXPECT_LE(taken, 4200U);
    expect_broken_off();
    EXPECT_EQ(refusals(refusals_t::protocol), 5U);
    // What was refused cannot be let in by what comes late.
    fake::deliver(connection, peer_control, handshake("secret"));
    EXPECT_FALSE(turns([&] { return last->is_authorized(); }, std::chrono::milliseconds(200)));
}

TEST_F(gateway, a_client_has_so_many_links_and_a_source_so_many_strangers) {
    limits_t limits;
    limits.client.links = 1;
    limits.source_strangers = 2;
    serve(secret(), "allow * * 127.0.0.0/8 *", limits);
    ASSERT_EQ(present("secret"), 0);
    fake::connection_t* const first = connection;
    next_connection();
    EXPECT_EQ(present("secret"), verdict_t::try_later);
    EXPECT_EQ(refusals(refusals_t::link_limit), 1U);
    loop.hold([&] { fake::disconnect(first); });
    next_connection();
    EXPECT_EQ(present("secret"), 0);
    next_connection();
    EXPECT_FALSE(connection->deleted);
    next_connection();
    EXPECT_TRUE(connection->deleted) << "two are there: the one that was refused, and one that says nothing";
}

TEST_F(gateway, of_a_path_report_only_so_much_is_kept) {
    serve(secret());
    ASSERT_EQ(present("secret"), 0);
    packet_t many(0);
    many.pack_string("PATH");
    for (int i = 0; i < 40; ++i) {
        path_state_t path;
        path.name = std::to_string(i);
        path.fill_to_packet(&many);
    }
    fake::deliver(connection, peer_control, frame(fake::body_of(many)));
    EXPECT_EQ(last->peer_report(SIZE_MAX).size(), 32U);
    fake::deliver(connection, peer_control, frame("\xA4PATH" + std::string(100'000, 'x')));
    EXPECT_EQ(last->peer_report(SIZE_MAX).size(), 32U) << "dropped as a whole";
    EXPECT_EQ(refusals(refusals_t::protocol), 1U);
}

TEST_F(gateway, forbidden_targets_cannot_be_reached_in_any_form) {
    const app::listener_t target({"127.0.0.1", 0});
    serve(secret(), "deny * * 127.0.0.1 *\nallow * * localhost *\nallow * * 127.0.0.0/8 *\nallow * * * *");
    ASSERT_EQ(present("secret"), 0);
    for (const char* host : {"127.0.0.1", "localhost", "::ffff:127.0.0.1", "::127.0.0.1", "0", "0.0.0.0", "", "*",
                             "[*]", "2130706433", "127.1", "::1", "::"}) {
        EXPECT_TRUE(is_ended(request("TCP", host, target.where.port), true)) << host;
    }
    EXPECT_FALSE(is_reached(target, 50));
    shared->set_rules(rules("allow * tcp 127.0.0.1 *"));
    EXPECT_FALSE(is_ended(request_of(target), false));
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
    EXPECT_FALSE(is_ended(request_of(target), false));
    EXPECT_FALSE(is_ended(request_of(target), false));
    EXPECT_TRUE(is_ended(request_of(target), true));
    EXPECT_EQ(refusals(refusals_t::instance_limit), 1U);
    EXPECT_FALSE(is_ended(std::string("\x40\x10x", 3), false)) << "a frame that is never finished";
    EXPECT_TRUE(is_ended(std::string("\x40\x10x", 3), true));
    EXPECT_EQ(refusals(refusals_t::stream_limit), 1U);

    fake::deliver(connection, peer_stream, frame(std::string(8000, 'x')));
    loop.fire_asyncs();
    EXPECT_EQ(refusals(refusals_t::queue_limit), 1U);
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);
    EXPECT_FALSE(fake::stream(connection, peer_stream + 4).fin) << "the others go on";
    fake::deliver(connection, peer_stream + 4, frame(std::string(8000, 'x')).substr(0, 5000));
    loop.fire_asyncs();
    EXPECT_EQ(refusals(refusals_t::queue_limit), 2U) << "half a frame is memory, too";
    EXPECT_TRUE(fake::stream(connection, peer_stream + 4).fin);
    EXPECT_FALSE(connection->deleted);
}

TEST_F(gateway, a_lent_listener_leads_to_the_newest_connection_of_its_client) {
    const app::listener_t listener({"127.0.0.1", 0});
    serve(secret());
    shared->lend(shared_secret_t::client_id, {listener.socket.fd(), "10.0.0.1", 80});
    const auto io_count = [&] {
        loop.fire_asyncs();
        return loop.count(fake::watcher_t::io);
    };
    ASSERT_EQ(present("secret"), 0);
    EXPECT_EQ(io_count(), 0U) << "the client may not know yet that it is let in";
    loop.hold([&] { fake::deliver(connection, peer_control, report); });
    EXPECT_EQ(io_count(), 1U);
    fake::connection_t* const first = connection;
    next_connection();
    ASSERT_EQ(present("secret"), 0);
    loop.hold([&] { fake::deliver(connection, peer_control, report); });
    EXPECT_EQ(io_count(), 1U);
    loop.hold([&] { fake::disconnect(connection); });
    EXPECT_EQ(io_count(), 1U) << "back to the one that is left";
    loop.hold([&] { fake::disconnect(first); });
    EXPECT_EQ(io_count(), 0U);
}

TEST_F(gateway, a_client_that_is_refused_or_not_answered_opens_nothing) {
    const app::listener_t listener({"127.0.0.1", 0});
    connect_client(listener);
    EXPECT_EQ(loop.count(fake::watcher_t::io), 0U) << "nothing is accepted before the server has answered";
    fake::deliver(connection, peer_control, answer(7, "no"));
    loop.fire_asyncs();
    EXPECT_EQ(refused, 7);
    EXPECT_EQ(reason, "no");
    EXPECT_EQ(authorized, 0);
    EXPECT_EQ(loop.count(fake::watcher_t::io), 0U);
    EXPECT_TRUE(fake::stream(connection, peer_control).fin);
    fake::disconnect(connection);
    next_connection();
    loop.fire_timers();
    EXPECT_TRUE(connection->deleted);
    fake::disconnect(connection);
    EXPECT_EQ(never_up, 2);
}

TEST_F(gateway, a_server_cannot_reach_into_the_clients_network) {
    const app::listener_t listener({"127.0.0.1", 0}), inner({"127.0.0.1", 0});
    connect_client(listener);
    fake::deliver(connection, peer_control, answer(0, ""));
    fake::deliver(connection, peer_stream, request_of(inner));
    loop.fire_asyncs();
    EXPECT_TRUE(fake::stream(connection, peer_stream).fin);
    EXPECT_FALSE(is_reached(inner, 50));
}

}  // namespace
}  // namespace tandem
