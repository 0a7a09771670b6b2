#include "tests/quic_tls/quic_pair.h"

#include <ngtcp2/ngtcp2_crypto.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tndm {
namespace {

constexpr size_t packet_size = 1200;
constexpr ngtcp2_tstamp one_way = NGTCP2_MILLISECONDS;

void must(int result) {
    if (result != 0) throw std::runtime_error(ngtcp2_strerror(result));
}

ngtcp2_cid random_cid() {
    ngtcp2_cid cid;
    cid.datalen = 18;
    random_nonce({cid.data, cid.datalen});
    return cid;
}

void fill_random(uint8_t* out, size_t size, const ngtcp2_rand_ctx*) {
    random_nonce({out, size});
}

int new_connection_id(ngtcp2_conn*, ngtcp2_cid* cid, uint8_t* token, size_t size, void*) {
    cid->datalen = size;
    random_nonce({cid->data, size});
    random_nonce({token, NGTCP2_STATELESS_RESET_TOKENLEN});
    return 0;
}

ngtcp2_callbacks callbacks(ngtcp2_recv_crypto_data receive_crypto) {
    ngtcp2_callbacks result{};
    result.client_initial = ngtcp2_crypto_client_initial_cb;
    result.recv_client_initial = ngtcp2_crypto_recv_client_initial_cb;
    result.recv_crypto_data = receive_crypto;
    result.encrypt = ngtcp2_crypto_encrypt_cb;
    result.decrypt = ngtcp2_crypto_decrypt_cb;
    result.hp_mask = ngtcp2_crypto_hp_mask_cb;
    result.recv_retry = ngtcp2_crypto_recv_retry_cb;
    result.update_key = ngtcp2_crypto_update_key_cb;
    result.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
    result.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
    result.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
    result.version_negotiation = ngtcp2_crypto_version_negotiation_cb;
    result.rand = fill_random;
    result.get_new_connection_id = new_connection_id;
    return result;
}

ngtcp2_settings settings_at(ngtcp2_tstamp now) {
    ngtcp2_settings settings;
    ngtcp2_settings_default(&settings);
    settings.initial_ts = now;
    settings.no_pmtud = 1;
    return settings;
}

ngtcp2_transport_params parameters() {
    ngtcp2_transport_params params;
    ngtcp2_transport_params_default(&params);
    params.initial_max_streams_bidi = 1;
    params.initial_max_stream_data_bidi_local = 65536;
    params.initial_max_stream_data_bidi_remote = 65536;
    params.initial_max_data = 65536;
    params.max_datagram_frame_size = 65535;
    return params;
}

}  // namespace

quic_end::quic_end(std::unique_ptr<tls_session> tls) : tls_(std::move(tls)) {
    address_.sin_family = AF_INET;
    path_.local = {reinterpret_cast<sockaddr*>(&address_), sizeof address_};
    path_.remote = path_.local;
}

quic_end::quic_end(std::unique_ptr<tls_session> tls, ngtcp2_tstamp now) : quic_end(std::move(tls)) {
    const auto functions = callbacks(receive_crypto);
    const auto settings = settings_at(now);
    const auto params = parameters();
    const ngtcp2_cid server_id = random_cid();
    const ngtcp2_cid own_id = random_cid();
    must(ngtcp2_conn_client_new(&connection_, &server_id, &own_id, &path_, NGTCP2_PROTO_VER_V1, &functions, &settings,
                                &params, nullptr, this));
    tls_->attach(connection_);
}

quic_end::quic_end(std::unique_ptr<tls_session> tls, std::span<const uint8_t> first_packet, ngtcp2_tstamp now)
    : quic_end(std::move(tls)) {
    ngtcp2_pkt_hd header;
    must(ngtcp2_accept(&header, first_packet.data(), first_packet.size()));
    const auto functions = callbacks(receive_crypto);
    const auto settings = settings_at(now);
    auto params = parameters();
    params.original_dcid = header.dcid;
    const ngtcp2_cid own_id = random_cid();
    must(ngtcp2_conn_server_new(&connection_, &header.scid, &own_id, &path_, header.version, &functions, &settings,
                                &params, nullptr, this));
    tls_->attach(connection_);
}

quic_end::~quic_end() {
    ngtcp2_conn_del(connection_);
}

void quic_end::read(std::span<const uint8_t> data, ngtcp2_tstamp now) {
    const ngtcp2_pkt_info info{};
    const int result = ngtcp2_conn_read_pkt(connection_, &path_, &info, data.data(), data.size(), now);
    if (result != 0) fail(result, now);
}

std::vector<quic_end::packet> quic_end::write(ngtcp2_tstamp now) {
    std::vector<packet> packets;
    while (error_ == 0) {
        packet out(packet_size);
        ngtcp2_pkt_info info;
        const auto size = ngtcp2_conn_write_pkt(connection_, nullptr, &info, out.data(), out.size(), now);
        if (size < 0) fail(static_cast<int>(size), now);
        if (size <= 0) break;
        out.resize(static_cast<size_t>(size));
        packets.push_back(std::move(out));
    }
    if (!close_packet_.empty()) packets.push_back(std::exchange(close_packet_, {}));
    ngtcp2_conn_update_pkt_tx_time(connection_, now);
    return packets;
}

int quic_end::receive_crypto(ngtcp2_conn* connection, ngtcp2_crypto_level level, uint64_t offset, const uint8_t* data,
                             size_t size, void* user_data) {
    const int result = tls_session::receive_crypto_data(connection, level, offset, data, size, user_data);
    packet& tail = static_cast<quic_end*>(user_data)->tail_;
    const bool finished = ngtcp2_conn_is_server(connection) || ngtcp2_conn_get_handshake_completed(connection);
    if (result == 0 && finished && !tail.empty()) {
        must(ngtcp2_conn_submit_crypto_data(connection, NGTCP2_CRYPTO_LEVEL_HANDSHAKE, tail.data(), tail.size()));
        tail.clear();
    }
    return result;
}

ngtcp2_tstamp quic_end::deadline() const {
    return error_ != 0 ? no_deadline : ngtcp2_conn_get_expiry(connection_);
}

void quic_end::expire(ngtcp2_tstamp now) {
    if (deadline() > now) return;
    if (const int result = ngtcp2_conn_handle_expiry(connection_, now); result != 0) fail(result, now);
}

void quic_end::fail(int error, ngtcp2_tstamp now) {
    if (error_ != 0) return;
    error_ = error;
    if (error == NGTCP2_ERR_DRAINING) return;
    ngtcp2_connection_close_error reason;
    ngtcp2_connection_close_error_default(&reason);
    if (error == NGTCP2_ERR_CRYPTO)
        ngtcp2_connection_close_error_set_transport_error_tls_alert(&reason, ngtcp2_conn_get_tls_alert(connection_),
                                                                    nullptr, 0);
    else
        ngtcp2_connection_close_error_set_transport_error_liberr(&reason, error, nullptr, 0);
    close_packet_.resize(packet_size);
    ngtcp2_pkt_info info;
    const auto size = ngtcp2_conn_write_connection_close(connection_, nullptr, &info, close_packet_.data(),
                                                         close_packet_.size(), &reason, now);
    close_packet_.resize(size > 0 ? static_cast<size_t>(size) : 0);
}

uint64_t quic_end::peer_error() const {
    ngtcp2_connection_close_error reason;
    ngtcp2_conn_get_connection_close_error(connection_, &reason);
    return error_ == NGTCP2_ERR_DRAINING ? reason.error_code : 0;
}

quic_pair::quic_pair(std::unique_ptr<tls_session> client_tls, std::unique_ptr<tls_session> server_tls)
    : client(std::move(client_tls), 1), server_tls_(std::move(server_tls)) {}

bool quic_pair::exchange() {
    bool busy = false;
    now_ += one_way;
    for (const auto& packet : client.write(now_)) {
        if (!server) server = std::make_unique<quic_end>(std::move(server_tls_), packet, now_);
        if (!server_tail.empty()) server->append_to_finished(std::exchange(server_tail, {}));
        server->read(packet, now_);
        busy = true;
    }
    now_ += one_way;
    for (const auto& packet : server->write(now_)) {
        client.read(packet, now_);
        busy = true;
    }
    return busy;
}

void quic_pair::run() {
    for (int rounds = 0; rounds < 1000; ++rounds) {
        if (exchange()) continue;
        const ngtcp2_tstamp next = std::min(client.deadline(), server->deadline());
        if (next == no_deadline) return;
        now_ = std::max(now_, next);
        client.expire(now_);
        server->expire(now_);
    }
    throw std::runtime_error("the ends never come to rest");
}

}  // namespace tndm
