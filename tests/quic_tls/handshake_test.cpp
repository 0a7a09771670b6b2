#include <gtest/gtest.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

#include <algorithm>
#include <functional>
#include <random>

#include "platform/tndm/quic/tls_session.h"
#include "tests/quic_tls/certificates.h"
#include "tests/quic_tls/quic_end.h"

namespace tndm {
namespace {

constexpr uint64_t crypto_error = 0x100; /* plus the TLS alert */
constexpr uint64_t alert_unexpected_message = 10;
constexpr uint64_t alert_bad_certificate = 42;
constexpr uint64_t alert_no_application_protocol = 120;

/* Both ends and a virtual clock. */
struct quic_pair {
    quic_pair(std::unique_ptr<tls_session> of_client, std::unique_ptr<tls_session> of_server)
        : client(std::move(of_client), 1), server_tls(std::move(of_server)) {}

    /* Carries packets both ways, and lets time pass, until neither end has anything left to do. */
    void run() {
        for (int rounds = 0; rounds < 1000; ++rounds) {
            if (exchange()) continue;
            const ngtcp2_tstamp next = std::min(client.deadline(), server->deadline());
            if (next == quic_end::never) return;
            now = std::max(now, next);
        }
        ADD_FAILURE() << "the ends never come to rest";
    }
    bool exchange() {
        now += NGTCP2_MILLISECONDS;
        const auto up = client.write(now);
        for (const auto& packet : up) {
            if (!server) server = std::make_unique<quic_end>(std::move(server_tls), packet, now);
            if (!server_tail.empty()) server->append_to_finished(std::exchange(server_tail, {}));
            server->read(packet, now);
        }
        now += NGTCP2_MILLISECONDS;
        const auto down = server->write(now);
        for (const auto& packet : down)
            client.read(packet, now);
        return !up.empty() || !down.empty();
    }

    quic_end client;
    std::unique_ptr<tls_session> server_tls;
    std::unique_ptr<quic_end> server;
    quic_end::packet server_tail; /* for the server's append_to_finished */
    ngtcp2_tstamp now = 1;
};

/* An authority, a server certified by it, a self-signed one that has expired, and an authority that nobody uses. */
class handshake : public testing::Test {
  protected:
    handshake()
        : authority_(authority_key_, {.common_name = "authority", .dns_names = {}, .authority = true}),
          stranger_(stranger_key_, {.common_name = "stranger", .dns_names = {}, .authority = true}),
          ca_(folder_.write("ca.pem", authority_.pem())),
          other_ca_(folder_.write("other-ca.pem", stranger_.pem())) {
        const certificate leaf(server_key_, {.ipv4 = "192.0.2.9"}, &authority_, &authority_key_);
        std::string error;
        server_ = server_credentials::load(folder_.write("cert.pem", leaf.pem()),
                                           folder_.write("key.pem", server_key_.pem()), error);
        const certificate old(stranger_key_, {.valid_from_days = -20, .valid_to_days = -10}, &authority_,
                              &authority_key_);
        expired_ = server_credentials::load(folder_.write("old.pem", old.pem()),
                                            folder_.write("old-key.pem", stranger_key_.pem()), error);
        EXPECT_TRUE(server_ && expired_) << error;
    }

    std::unique_ptr<tls_session> client(const std::string& trust_text, const std::string& host = "server.test",
                                        const std::string& alpn = "tndm") {
        std::string error;
        auto credentials = client_credentials::load(trust_text, host, error);
        EXPECT_TRUE(credentials) << error;
        auto session = tls_session::create_client(std::move(credentials), alpn, error);
        EXPECT_TRUE(session) << error;
        return session;
    }

    std::unique_ptr<tls_session> server(std::shared_ptr<const server_credentials> credentials,
                                        const std::string& alpn = "tndm") {
        std::string error;
        auto session = tls_session::create_server(std::move(credentials), alpn, error);
        EXPECT_TRUE(session) << error;
        return session;
    }

    /* A finished handshake of a client that pins the server. */
    std::unique_ptr<quic_pair> connected() {
        auto pair = std::make_unique<quic_pair>(client("pin:" + server_->pin()), server(server_));
        pair->run();
        EXPECT_TRUE(pair->client.completed() && pair->server->completed());
        return pair;
    }

    temporary_folder folder_;
    private_key authority_key_, server_key_, stranger_key_;
    certificate authority_, stranger_;
    std::string ca_, other_ca_;
    std::shared_ptr<const server_credentials> server_, expired_;
};

TEST_F(handshake, trust_decides) {
    const std::string pin = "pin:" + server_->pin();
    const std::string wrong_pin = "pin:" + std::string(64, '0');
    std::string upper = server_->pin();
    for (char& c : upper)
        c = static_cast<char>(toupper(c));
    const struct {
        std::string text, host;
        bool expired;
        std::vector<std::string> refusal; /* empty: accepted */
    } cases[] = {
        {pin, "anything", false, {}},
        {"pin:" + upper, "192.0.2.1", false, {}},
        {wrong_pin + ";" + pin, "anything", false, {}},
        {wrong_pin, "server.test", false, {"does not match the pin", pin}},
        {pin + ";name:server.test", "anything", false, {}},
        {pin + ";name:other.test", "server.test", false, {"not for the name \"other.test\""}},
        {"ca:" + ca_, "server.test", false, {}},
        {"ca:" + ca_, "192.0.2.9", false, {}},
        {"ca:" + ca_, "192.0.2.8", false, {"192.0.2.8", "name", pin}},
        {"ca:" + ca_, "other.test", false, {"not accepted for \"other.test\"", pin}},
        {" ca : " + ca_ + " ;; name : server.test ; ", "other.test", false, {}},
        {"ca:" + other_ca_, "server.test", false, {"issuer is unknown", pin}},
        {"ca:" + other_ca_ + ";ca:" + ca_, "server.test", false, {}},
        {"ca:" + ca_ + ";" + pin, "server.test", false, {}},
        {"ca:" + ca_ + ";" + wrong_pin, "server.test", false, {"does not match the pin"}},
        {"ca:" + other_ca_ + ";" + pin, "server.test", false, {"issuer is unknown"}},
        {"ca:" + ca_, "server.test", true, {"expired"}},
        {"pin:" + expired_->pin(), "server.test", true, {}},
        {"insecure:yes", "anything", true, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text + " for " + c.host);
        quic_pair pair(client(c.text, c.host), server(c.expired ? expired_ : server_));
        pair.run();
        const std::string& problem = pair.client.tls().certificate_error();
        EXPECT_EQ(pair.client.completed(), c.refusal.empty());
        EXPECT_EQ(pair.server->completed(), c.refusal.empty());
        EXPECT_EQ(problem.empty(), c.refusal.empty()) << problem;
        for (const auto& part : c.refusal)
            EXPECT_NE(problem.find(part), std::string::npos) << problem;
        EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
        if (!c.refusal.empty()) {
            EXPECT_EQ(pair.client.error(), NGTCP2_ERR_CRYPTO);
            EXPECT_EQ(pair.server->peer_error(), crypto_error + alert_bad_certificate);
        }
    }
}

TEST_F(handshake, the_machines_authorities_do_not_know_this_server) {
    std::string error;
    auto credentials = client_credentials::load("", "server.test", error);
    if (!credentials) {
        EXPECT_NE(error.find("no trusted authorities"), std::string::npos) << error;
        return;
    }
    quic_pair pair(tls_session::create_client(credentials, "tndm", error), server(server_));
    pair.run();
    EXPECT_FALSE(pair.client.completed());
    EXPECT_NE(pair.client.tls().certificate_error().find("not accepted"), std::string::npos);
}

TEST_F(handshake, alpn_must_match_when_the_server_has_one) {
    const struct {
        std::string client, server;
        bool works;
        std::string selected;
    } cases[] = {
        {"tndm", "tndm", true, "tndm"}, {"tndm", "other", false, ""}, {"", "tndm", false, ""},
        {"tndm", "", true, ""},         {"", "", true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("\"" + c.client + "\" to \"" + c.server + "\"");
        quic_pair pair(client("insecure:yes", "server.test", c.client), server(server_, c.server));
        pair.run();
        EXPECT_EQ(pair.client.completed(), c.works);
        EXPECT_EQ(pair.server->completed(), c.works);
        if (!c.works) {
            EXPECT_EQ(pair.client.peer_error(), crypto_error + alert_no_application_protocol);
            continue;
        }
        EXPECT_EQ(pair.client.tls().selected_alpn(), c.selected);
        EXPECT_EQ(pair.server->tls().selected_alpn(), c.selected);
    }
    std::string error;
    EXPECT_FALSE(tls_session::create_server(server_, std::string(300, 'x'), error));
    EXPECT_NE(error.find("ALPN"), std::string::npos) << error;
}

TEST_F(handshake, agrees_on_what_was_asked_for) {
    const auto pair = connected();
    const gnutls_session_t session = pair->server->tls().handle();
    EXPECT_EQ(gnutls_protocol_get_version(session), GNUTLS_TLS1_3);
    EXPECT_EQ(gnutls_cipher_get(session), GNUTLS_CIPHER_AES_128_GCM);
    EXPECT_EQ(gnutls_group_get(session), GNUTLS_GROUP_X25519);
    EXPECT_EQ(gnutls_session_get_flags(pair->client.tls().handle()) & GNUTLS_SFLAGS_SESSION_TICKET, 0u);

    const auto announced = [&](const std::string& trust_text, const std::string& host) {
        quic_pair other(client(trust_text, host), server(server_));
        other.run();
        char name[256] = "";
        size_t size = sizeof name;
        unsigned type = 0;
        return gnutls_server_name_get(other.server->tls().handle(), name, &size, &type, 0) == 0 ? std::string(name)
                                                                                                : "";
    };
    EXPECT_EQ(announced("insecure:yes", "server.test"), "server.test");
    EXPECT_EQ(announced("insecure:yes;name:other.test", "192.0.2.1"), "other.test");
    EXPECT_EQ(announced("insecure:yes", "192.0.2.1"), "");
    EXPECT_EQ(announced("insecure:yes", "2001:db8::1"), "");
}

/* TLS messages that have no place in QUIC after the handshake end the connection at most. */
TEST_F(handshake, survives_hostile_messages_after_it) {
    const std::vector<uint8_t> messages[] = {
        {24, 0, 0, 1, 1},                                        /* KeyUpdate, an answer asked for */
        {24, 0, 0, 1, 0},                                        /* KeyUpdate */
        {24, 0, 0, 1, 0, 24, 0, 0, 1, 1, 24, 0, 0, 1, 0},        /* several */
        {4, 0, 0, 14, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 7, 0, 0}, /* NewSessionTicket */
        {13, 0, 0, 3, 0, 0, 0},                                  /* CertificateRequest */
        {11, 0, 0, 4, 0, 0, 0, 0},                               /* Certificate */
        {1, 0, 0, 2, 3, 3},                                      /* ClientHello */
        {20, 0, 0, 0},                                           /* Finished */
        {0, 0, 0, 0},                                            /* HelloRequest */
        {255, 255, 255, 255, 0},                                 /* none at all */
    };
    for (const auto& message : messages) {
        for (const bool from_client : {true, false}) {
            SCOPED_TRACE(std::to_string(message[0]) + (from_client ? " from the client" : " from the server"));
            const auto pair = connected();
            quic_end& sender = from_client ? pair->client : *pair->server;
            quic_end& receiver = from_client ? *pair->server : pair->client;
            ASSERT_EQ(ngtcp2_conn_submit_crypto_data(sender.connection(), NGTCP2_CRYPTO_LEVEL_APPLICATION,
                                                     message.data(), message.size()),
                      0);
            pair->run();
            EXPECT_EQ(receiver.error(), NGTCP2_ERR_CRYPTO);
            EXPECT_EQ(sender.peer_error(), crypto_error + alert_unexpected_message);

            quic_pair early(client("insecure:yes"), server(server_));
            if (from_client)
                early.client.append_to_finished(message);
            else
                early.server_tail = message;
            early.run();
            const int result = from_client ? early.server->error() : early.client.error();
            EXPECT_TRUE(result == 0 || result == NGTCP2_ERR_CRYPTO) << ngtcp2_strerror(result);
        }
    }
}

/* Changes what an end says in its handshake, before it is encrypted. */
std::function<void(gnutls_handshake_description_t, std::vector<uint8_t>&)> change;

int send_changed(gnutls_session_t session, gnutls_record_encryption_level_t level, gnutls_handshake_description_t type,
                 const void* data, size_t size) {
    if (type == GNUTLS_HANDSHAKE_CHANGE_CIPHER_SPEC) return 0;
    const auto* first = static_cast<const uint8_t*>(data);
    std::vector<uint8_t> message(first, first + size);
    change(type, message);
    auto* reference = static_cast<ngtcp2_crypto_conn_ref*>(gnutls_session_get_ptr(session));
    return ngtcp2_conn_submit_crypto_data(reference->get_conn(reference),
                                          ngtcp2_crypto_gnutls_from_gnutls_record_encryption_level(level),
                                          message.data(), message.size());
}

TEST_F(handshake, needs_transport_parameters) {
    /* Gives the extension that carries them the number of one that nobody knows. */
    change = [](gnutls_handshake_description_t type, std::vector<uint8_t>& message) {
        const uint8_t number[] = {0x00, 0x39, 0x00};
        const auto found = std::search(message.begin(), message.end(), std::begin(number), std::end(number));
        const bool carries = type == GNUTLS_HANDSHAKE_CLIENT_HELLO || type == GNUTLS_HANDSHAKE_ENCRYPTED_EXTENSIONS;
        if (carries && found != message.end()) *found = 0xe0;
    };
    for (const bool from_client : {true, false}) {
        quic_pair pair(client("insecure:yes"), server(server_));
        gnutls_handshake_set_read_function((from_client ? pair.client.tls() : *pair.server_tls).handle(), send_changed);
        pair.run();
        EXPECT_FALSE(pair.client.completed() && pair.server->completed());
        EXPECT_NE((from_client ? *pair.server : pair.client).error(), 0);
    }
}

TEST_F(handshake, survives_mangled_messages_in_it) {
    std::mt19937 dice(1);
    /* A few bytes changed, cut off or repeated. */
    change = [&](gnutls_handshake_description_t, std::vector<uint8_t>& message) {
        const std::vector<uint8_t> whole = message;
        for (unsigned changes = dice() % 4; changes > 0; --changes)
            message[dice() % whole.size()] = static_cast<uint8_t>(dice());
        if (dice() % 8 == 0) message.resize(dice() % whole.size() + 1);
        if (dice() % 8 == 0) message.insert(message.end(), whole.begin(), whole.end());
    };
    int refused = 0;
    for (int i = 0; i < 400; ++i) {
        quic_pair pair(client("insecure:yes"), server(server_));
        gnutls_handshake_set_read_function((i % 2 == 0 ? pair.client.tls() : *pair.server_tls).handle(), send_changed);
        pair.run();
        refused += !(pair.client.completed() && pair.server->completed());
    }
    EXPECT_GT(refused, 200);
}

}  // namespace
}  // namespace tndm
