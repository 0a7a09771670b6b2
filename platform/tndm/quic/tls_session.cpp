#include "platform/tndm/quic/tls_session.h"

#include <arpa/inet.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

#include <utility>

namespace tndm {
namespace {

/* Compatibility mode would send a ChangeCipherSpec record, which QUIC forbids. */
constexpr const char* priorities =
    "NORMAL:-VERS-ALL:+VERS-TLS1.3:-CIPHER-ALL:+AES-128-GCM:+CHACHA20-POLY1305:+AES-256-GCM:"
    "-GROUP-ALL:+GROUP-X25519:+GROUP-SECP256R1:%DISABLE_TLS13_COMPAT_MODE";

bool is_numeric(const std::string& host) {
    in6_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, host.substr(0, host.find('%')).c_str(), &address) == 1;
}

bool failed(int result, const char* what, std::string& error) {
    if (result >= 0) return false;
    error = std::string("TLS: ") + what + ": " + gnutls_strerror(result);
    return true;
}

}  // namespace

tls_session::tls_session() {
    reference_.user_data = this;
    reference_.get_conn = [](ngtcp2_crypto_conn_ref* reference) {
        return static_cast<tls_session*>(reference->user_data)->connection_;
    };
}

tls_session::~tls_session() {
    if (session_ != nullptr) gnutls_deinit(session_);
}

tls_session& tls_session::of(gnutls_session_t session) {
    auto* reference = static_cast<ngtcp2_crypto_conn_ref*>(gnutls_session_get_ptr(session));
    return *static_cast<tls_session*>(reference->user_data);
}

bool tls_session::open(unsigned flags, gnutls_certificate_credentials_t credentials, std::string& error) {
    if (failed(gnutls_init(&session_, flags | GNUTLS_NO_TICKETS | GNUTLS_NO_END_OF_EARLY_DATA), "no session", error)) {
        session_ = nullptr;
        return false;
    }
    gnutls_session_set_ptr(session_, &reference_);
    gnutls_handshake_set_hook_function(session_, GNUTLS_HANDSHAKE_ANY, GNUTLS_HOOK_BOTH, on_handshake_message);
    return !failed(gnutls_priority_set_direct(session_, priorities, nullptr), "priorities", error) &&
           !failed(gnutls_credentials_set(session_, GNUTLS_CRD_CERTIFICATE, credentials), "credentials", error);
}

bool tls_session::offer_alpn(std::string_view alpn, unsigned flags, std::string& error) {
    if (alpn.empty()) return true;
    std::string copy(alpn);
    const gnutls_datum_t protocol{reinterpret_cast<unsigned char*>(copy.data()), static_cast<unsigned>(copy.size())};
    return !failed(gnutls_alpn_set_protocols(session_, &protocol, 1, flags), "this ALPN cannot be used", error);
}

std::unique_ptr<tls_session> tls_session::create_client(std::shared_ptr<const client_credentials> credentials,
                                                        std::string_view alpn, std::string& error) {
    std::unique_ptr<tls_session> result(new tls_session);
    result->client_ = std::move(credentials);
    if (!result->open(GNUTLS_CLIENT, result->client_->handle(), error)) return nullptr;
    const gnutls_session_t session = result->session_;
    if (failed(ngtcp2_crypto_gnutls_configure_client_session(session), "QUIC cannot be set up", error)) return nullptr;
    if (!result->offer_alpn(alpn, 0, error)) return nullptr;
    const std::string& name = result->client_->judge().name();
    if (!name.empty() && !is_numeric(name) &&
        failed(gnutls_server_name_set(session, GNUTLS_NAME_DNS, name.data(), name.size()), "server name", error))
        return nullptr;
    gnutls_session_set_verify_function(session, verify_peer);
    return result;
}

std::unique_ptr<tls_session> tls_session::create_server(std::shared_ptr<const server_credentials> credentials,
                                                        std::string_view alpn, std::string& error) {
    std::unique_ptr<tls_session> result(new tls_session);
    result->server_ = std::move(credentials);
    if (!result->open(GNUTLS_SERVER, result->server_->handle(), error)) return nullptr;
    const gnutls_session_t session = result->session_;
    if (failed(ngtcp2_crypto_gnutls_configure_server_session(session), "QUIC cannot be set up", error)) return nullptr;
    if (!result->offer_alpn(alpn, GNUTLS_ALPN_MANDATORY, error)) return nullptr;
    result->alpn_required_ = !alpn.empty();
    return result;
}

void tls_session::attach(ngtcp2_conn* connection) {
    connection_ = connection;
    ngtcp2_conn_set_tls_native_handle(connection, session_);
}

int tls_session::receive_crypto_data(ngtcp2_conn* connection, ngtcp2_crypto_level level, uint64_t offset,
                                     const uint8_t* data, size_t size, void* user_data) {
    if (ngtcp2_conn_get_handshake_completed(connection)) {
        ngtcp2_conn_set_tls_alert(connection, GNUTLS_A_UNEXPECTED_MESSAGE);
        return NGTCP2_ERR_CRYPTO;
    }
    return ngtcp2_crypto_recv_crypto_data_cb(connection, level, offset, data, size, user_data);
}

int tls_session::verify_peer(gnutls_session_t session) {
    tls_session& self = of(session);
    const auto problem = self.client_->judge().verify(session);
    if (!problem) return 0;
    self.certificate_error_ = *problem;
    return GNUTLS_E_CERTIFICATE_ERROR;
}

/* Two messages would lead ngtcp2 into an assertion that ends the process: a KeyUpdate (QUIC has its own, yet GnuTLS
 * installs new keys for it), and a ClientHello without QUIC's transport parameters. And "mandatory" ALPN concerns only
 * clients that offer some. */
int tls_session::on_handshake_message(gnutls_session_t session, unsigned type, unsigned when, unsigned incoming,
                                      const gnutls_datum_t*) {
    const tls_session& self = of(session);
    if (type == GNUTLS_HANDSHAKE_KEY_UPDATE) return GNUTLS_E_UNEXPECTED_HANDSHAKE_PACKET;
    if (type != GNUTLS_HANDSHAKE_CLIENT_HELLO || when != GNUTLS_HOOK_POST || incoming == 0) return 0;
    if (ngtcp2_conn_get_negotiated_version(self.connection_) == 0) return GNUTLS_E_MISSING_EXTENSION;
    if (self.alpn_required_ && self.selected_alpn().empty()) return GNUTLS_E_NO_APPLICATION_PROTOCOL;
    return 0;
}

std::string tls_session::selected_alpn() const {
    gnutls_datum_t protocol{nullptr, 0};
    if (gnutls_alpn_get_selected_protocol(session_, &protocol) < 0) return {};
    return {reinterpret_cast<const char*>(protocol.data), protocol.size};
}

bool tls_session::exporter(std::string_view label, std::span<const uint8_t> context, std::span<uint8_t> out) const {
    return gnutls_prf_rfc5705(session_, label.size(), label.data(), context.size(),
                              reinterpret_cast<const char*>(context.data()), out.size(),
                              reinterpret_cast<char*>(out.data())) == 0;
}

}  // namespace tndm
