#include "tests/quic_tls/quic_end.h"

#include <ngtcp2/ngtcp2_crypto.h>

#include <stdexcept>
#include <utility>

namespace tndm {
namespace {

constexpr size_t packet_size = 1200;

void must(int result) {
    if (result != 0) throw std::runtime_error(ngtcp2_strerror(result));
}

ngtcp2_cid random_id() {
    ngtcp2_cid id;
    id.datalen = 16;
    random_nonce({id.data, id.datalen});
    return id;
}

ngtcp2_settings settings_at(ngtcp2_tstamp now) {
    ngtcp2_settings settings;
    ngtcp2_settings_default(&settings);
    settings.initial_ts = now;
    settings.no_pmtud = 1;
    return settings;
}

ngtcp2_transport_params parameters(uint64_t datagram_size) {
    ngtcp2_transport_params params;
    ngtcp2_transport_params_default(&params);
    params.initial_max_streams_bidi = 1;
    params.initial_max_streams_uni = 1 << 14;
    params.initial_max_data = 1 << 20;
    params.initial_max_stream_data_bidi_local = params.initial_max_stream_data_bidi_remote = 1 << 20;
    params.max_datagram_frame_size = datagram_size;
    return params;
}

}  // namespace

ngtcp2_callbacks quic_end::callbacks() {
    ngtcp2_callbacks calls{};
    calls.client_initial = ngtcp2_crypto_client_initial_cb;
    calls.recv_client_initial = ngtcp2_crypto_recv_client_initial_cb;
    calls.recv_crypto_data = receive_crypto;
    calls.encrypt = ngtcp2_crypto_encrypt_cb;
    calls.decrypt = ngtcp2_crypto_decrypt_cb;
    calls.hp_mask = ngtcp2_crypto_hp_mask_cb;
    calls.recv_retry = ngtcp2_crypto_recv_retry_cb;
    calls.update_key = ngtcp2_crypto_update_key_cb;
    calls.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
    calls.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
    calls.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
    calls.version_negotiation = ngtcp2_crypto_version_negotiation_cb;
    calls.rand = [](uint8_t* out, size_t size, const ngtcp2_rand_ctx*) { random_nonce({out, size}); };
    calls.get_new_connection_id = [](ngtcp2_conn*, ngtcp2_cid* id, uint8_t* token, size_t size, void*) {
        id->datalen = size;
        random_nonce({id->data, size});
        random_nonce({token, NGTCP2_STATELESS_RESET_TOKENLEN});
        return 0;
    };
    calls.recv_stream_data = [](ngtcp2_conn*, uint32_t, int64_t, uint64_t, const uint8_t* data, size_t size, void* self,
                                void*) {
        return static_cast<quic_end*>(self)->on_stream({data, size}) ? 0 : NGTCP2_ERR_CALLBACK_FAILURE;
    };
    return calls;
}

quic_end::quic_end(std::unique_ptr<tls_session> tls) : tls_(std::move(tls)) {
    address_.sin_family = AF_INET;
    path_.local = path_.remote = {reinterpret_cast<sockaddr*>(&address_), sizeof address_};
}

quic_end::quic_end(std::unique_ptr<tls_session> tls, ngtcp2_tstamp now, uint64_t datagram_size)
    : quic_end(std::move(tls)) {
    const auto calls = callbacks();
    const auto settings = settings_at(now);
    const auto params = parameters(datagram_size);
    const ngtcp2_cid server_id = random_id();
    const ngtcp2_cid own_id = random_id();
    must(ngtcp2_conn_client_new(&connection_, &server_id, &own_id, &path_, NGTCP2_PROTO_VER_V1, &calls, &settings,
                                &params, nullptr, this));
    tls_->attach(connection_);
}

quic_end::quic_end(std::unique_ptr<tls_session> tls, std::span<const uint8_t> first_packet, ngtcp2_tstamp now)
    : quic_end(std::move(tls)) {
    ngtcp2_pkt_hd header;
    must(ngtcp2_accept(&header, first_packet.data(), first_packet.size()));
    const auto calls = callbacks();
    const auto settings = settings_at(now);
    auto params = parameters(65535);
    params.original_dcid = header.dcid;
    const ngtcp2_cid own_id = random_id();
    must(ngtcp2_conn_server_new(&connection_, &header.scid, &own_id, &path_, header.version, &calls, &settings, &params,
                                nullptr, this));
    tls_->attach(connection_);
}

quic_end::~quic_end() {
    ngtcp2_conn_del(connection_);
}

void quic_end::read(std::span<const uint8_t> data, ngtcp2_tstamp now) {
    if (error_ != 0) return;
    const ngtcp2_pkt_info info{};
    fail(ngtcp2_conn_read_pkt(connection_, &path_, &info, data.data(), data.size(), now), now);
}

std::vector<quic_end::packet> quic_end::write(ngtcp2_tstamp now) {
    if (deadline() <= now) fail(ngtcp2_conn_handle_expiry(connection_, now), now);
    std::vector<packet> packets;
    while (error_ == 0) {
        packet out(packet_size);
        const auto size = write_one(out, now);
        if (size < 0) fail(static_cast<int>(size), now);
        if (size <= 0) break;
        out.resize(static_cast<size_t>(size));
        packets.push_back(std::move(out));
    }
    if (!close_packet_.empty()) packets.push_back(std::exchange(close_packet_, {}));
    ngtcp2_conn_update_pkt_tx_time(connection_, now);
    return packets;
}

ngtcp2_ssize quic_end::write_one(packet& out, ngtcp2_tstamp now) {
    ngtcp2_pkt_info info{};
    if (completed() && saying_ < said_.size() &&
        (stream_ != -1 || ngtcp2_conn_open_bidi_stream(connection_, &stream_, nullptr) == 0)) {
        packet& next = said_[saying_];
        const ngtcp2_vec rest{next.data() + said_bytes_, next.size() - said_bytes_};
        ngtcp2_ssize taken = -1;
        const auto size = ngtcp2_conn_writev_stream(connection_, nullptr, &info, out.data(), out.size(), &taken, 0,
                                                    stream_, &rest, 1, now);
        said_bytes_ += taken > 0 ? static_cast<size_t>(taken) : 0;
        if (said_bytes_ == next.size()) {
            ++saying_;
            said_bytes_ = 0;
        }
        if (size != NGTCP2_ERR_STREAM_DATA_BLOCKED && size != NGTCP2_ERR_STREAM_SHUT_WR) return size;
    } else if (completed() && !datagrams_.empty()) {
        packet& next = datagrams_.front();
        const ngtcp2_vec whole{next.data(), next.size()};
        int accepted = 0;
        const auto size = ngtcp2_conn_writev_datagram(connection_, nullptr, &info, out.data(), out.size(), &accepted, 0,
                                                      1, &whole, 1, now);
        const bool refused = size == NGTCP2_ERR_INVALID_ARGUMENT || size == NGTCP2_ERR_INVALID_STATE;
        if (accepted != 0 || refused) datagrams_.pop_front();
        return refused ? 0 : size;
    }
    return ngtcp2_conn_write_pkt(connection_, nullptr, &info, out.data(), out.size(), now);
}

void quic_end::say(std::span<const uint8_t> bytes) {
    if (!bytes.empty()) said_.emplace_back(bytes.begin(), bytes.end());
}

void quic_end::datagram(packet bytes) {
    if (!bytes.empty()) datagrams_.push_back(std::move(bytes)); /* the library does not send empty ones */
}

int quic_end::receive_crypto(ngtcp2_conn* connection, ngtcp2_crypto_level level, uint64_t offset, const uint8_t* data,
                             size_t size, void* self) {
    const int result = tls_session::receive_crypto_data(connection, level, offset, data, size, self);
    packet& tail = static_cast<quic_end*>(self)->tail_;
    const bool finished = ngtcp2_conn_is_server(connection) || ngtcp2_conn_get_handshake_completed(connection);
    if (result == 0 && finished && !tail.empty()) {
        must(ngtcp2_conn_submit_crypto_data(connection, NGTCP2_CRYPTO_LEVEL_HANDSHAKE, tail.data(), tail.size()));
        tail.clear();
    }
    return result;
}

ngtcp2_tstamp quic_end::deadline() const {
    return error_ != 0 ? never : ngtcp2_conn_get_expiry(connection_);
}

void quic_end::fail(int error, ngtcp2_tstamp now) {
    if (error == 0 || error_ != 0) return;
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

}  // namespace tndm
