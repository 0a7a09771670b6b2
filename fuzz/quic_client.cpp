#include "fuzz/quic_client.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <ngtcp2/ngtcp2_crypto.h>

#include "fuzz/input.h"

// The library's TLS half says what it has to say to its QUIC half through this function, and finds it here first.
extern "C" __attribute__((visibility("default"))) int ngtcp2_conn_submit_crypto_data(ngtcp2_conn* connection,
                                                                                     ngtcp2_crypto_level level,
                                                                                     const uint8_t* data,
                                                                                     const size_t size) {
    return fuzz::quic_client::submit_crypto(connection, level, data, size);
}

namespace fuzz {

namespace {

using submit_t = int (*)(ngtcp2_conn*, ngtcp2_crypto_level, const uint8_t*, size_t);

int submit(ngtcp2_conn* connection, ngtcp2_crypto_level level, const uint8_t* data, size_t size) {
    static const auto next = reinterpret_cast<submit_t>(dlsym(RTLD_NEXT, "ngtcp2_conn_submit_crypto_data"));
    return next(connection, level, data, size);
}

quic_client* lying = nullptr;  // while it calls the library

ngtcp2_tstamp stamp(tndm::core::instant now) {
    return static_cast<ngtcp2_tstamp>(now.time_since_epoch().count());
}

ngtcp2_cid random_id() {
    ngtcp2_cid id;
    id.datalen = 16;
    tndm::random_nonce({id.data, id.datalen});
    return id;
}

ngtcp2_callbacks library_callbacks() {
    ngtcp2_callbacks calls{};
    calls.client_initial = ngtcp2_crypto_client_initial_cb;
    calls.recv_crypto_data = tndm::tls_session::receive_crypto_data;
    calls.encrypt = ngtcp2_crypto_encrypt_cb;
    calls.decrypt = ngtcp2_crypto_decrypt_cb;
    calls.hp_mask = ngtcp2_crypto_hp_mask_cb;
    calls.recv_retry = ngtcp2_crypto_recv_retry_cb;
    calls.update_key = ngtcp2_crypto_update_key_cb;
    calls.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
    calls.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
    calls.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
    calls.version_negotiation = ngtcp2_crypto_version_negotiation_cb;
    calls.rand = [](uint8_t* out, size_t size, const ngtcp2_rand_ctx*) { tndm::random_nonce({out, size}); };
    calls.get_new_connection_id = [](ngtcp2_conn*, ngtcp2_cid* id, uint8_t* token, size_t size, void*) {
        id->datalen = size;
        tndm::random_nonce({id->data, size});
        tndm::random_nonce({token, NGTCP2_STATELESS_RESET_TOKENLEN});
        return 0;
    };
    return calls;
}

// The library's calls into TLS are told from the server's by who is at work.
class turn {
  public:
    explicit turn(quic_client* whose) { lying = whose; }
    ~turn() { lying = nullptr; }
    turn(const turn&) = delete;
    turn& operator=(const turn&) = delete;
};

}  // namespace

quic_client::quic_client(std::shared_ptr<const tndm::client_credentials> credentials, uint16_t own_port,
                         uint16_t server_port, std::optional<lie> told, tndm::core::instant now)
    : lie_(told) {
    local_.sin_family = remote_.sin_family = AF_INET;
    local_.sin_addr.s_addr = remote_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    local_.sin_port = htons(own_port);
    remote_.sin_port = htons(server_port);
    path_ = {{reinterpret_cast<sockaddr*>(&local_), sizeof local_},
             {reinterpret_cast<sockaddr*>(&remote_), sizeof remote_},
             nullptr};
    std::string error;
    tls_ = tndm::tls_session::create_client(std::move(credentials), "test", error);
    require(tls_ != nullptr, "a TLS session can be made");
    auto calls = library_callbacks();
    calls.recv_stream_data = on_stream;
    ngtcp2_settings settings;
    ngtcp2_settings_default(&settings);
    settings.initial_ts = stamp(now);
    ngtcp2_transport_params params;
    ngtcp2_transport_params_default(&params);
    params.initial_max_data = params.initial_max_stream_data_bidi_local = 1 << 20;
    params.initial_max_streams_uni = 1 << 14;
    params.max_datagram_frame_size = 65535;
    params.max_idle_timeout = 60 * NGTCP2_SECONDS;
    const ngtcp2_cid server_id = random_id();
    const ngtcp2_cid own_id = random_id();
    require(ngtcp2_conn_client_new(&connection_, &server_id, &own_id, &path_, NGTCP2_PROTO_VER_V1, &calls, &settings,
                                   &params, nullptr, this) == 0,
            "a QUIC client can be made");
    tls_->attach(connection_);
}

quic_client::~quic_client() {
    ngtcp2_conn_del(connection_);
}

int quic_client::submit_crypto(ngtcp2_conn* connection, ngtcp2_crypto_level level, const uint8_t* data, size_t size) {
    if (lying == nullptr || !lying->lie_) {
        return submit(connection, level, data, size);
    }
    bytes_t& said = lying->crypto_.emplace_back(data, data + size);
    const uint32_t at = lying->lie_->offset - lying->crypto_said_;
    if (at < said.size()) said[at] ^= lying->lie_->change;
    lying->crypto_said_ += static_cast<uint32_t>(size);
    return submit(connection, level, said.data(), said.size());
}

int quic_client::on_stream(ngtcp2_conn*, uint32_t, int64_t, uint64_t, const uint8_t* data, size_t size, void* user,
                           void*) {
    auto& self = *static_cast<quic_client*>(user);
    require(self.messages_.push({data, size}), "the server says only what can be understood");
    while (auto message = self.messages_.next()) {
        if (const auto* welcome = std::get_if<tndm::control::welcome>(&*message)) self.welcomed_ = *welcome;
    }
    return 0;
}

void quic_client::read(std::span<const uint8_t> packet, tndm::core::instant now) {
    if (error_ != 0) return;
    const turn mine(this);
    const ngtcp2_pkt_info info{};
    error_ = ngtcp2_conn_read_pkt(connection_, &path_, &info, packet.data(), packet.size(), stamp(now));
}

std::vector<bytes_t> quic_client::write(tndm::core::instant now, size_t most) {
    const turn mine(this);
    std::vector<bytes_t> packets;
    if (error_ == 0 && ngtcp2_conn_get_expiry(connection_) <= stamp(now)) {
        error_ = ngtcp2_conn_handle_expiry(connection_, stamp(now));
    }
    while (error_ == 0 && packets.size() < most) {
        bytes_t out(1452);
        const ngtcp2_ssize size = write_one(out, stamp(now));
        if (size < 0) error_ = static_cast<int>(size);
        if (size <= 0) break;
        out.resize(static_cast<size_t>(size));
        packets.push_back(std::move(out));
    }
    ngtcp2_conn_update_pkt_tx_time(connection_, stamp(now));
    return packets;
}

ngtcp2_ssize quic_client::write_one(std::span<uint8_t> out, ngtcp2_tstamp now) {
    ngtcp2_pkt_info info{};
    const bool ready = ngtcp2_conn_get_handshake_completed(connection_) != 0;
    if (ready && !stream_.empty() &&
        (stream_id_ != -1 || ngtcp2_conn_open_bidi_stream(connection_, &stream_id_, nullptr) == 0)) {
        const bytes_t& rest = sent_.emplace_back(stream_.begin(), stream_.end());
        const ngtcp2_vec vector{const_cast<uint8_t*>(rest.data()), rest.size()};
        ngtcp2_ssize taken = -1;
        const ngtcp2_ssize size = ngtcp2_conn_writev_stream(connection_, nullptr, &info, out.data(), out.size(), &taken,
                                                            0, stream_id_, &vector, 1, now);
        if (taken > 0) stream_.erase(stream_.begin(), stream_.begin() + taken);
        if (size != NGTCP2_ERR_STREAM_DATA_BLOCKED && size != NGTCP2_ERR_STREAM_SHUT_WR) return size;
    } else if (ready && !datagrams_.empty()) {
        bytes_t& next = datagrams_.front();
        const ngtcp2_vec whole{next.data(), next.size()};
        int accepted = 0;
        const ngtcp2_ssize size = ngtcp2_conn_writev_datagram(connection_, nullptr, &info, out.data(), out.size(),
                                                              &accepted, 0, 1, &whole, 1, now);
        if (accepted != 0 || size == NGTCP2_ERR_INVALID_ARGUMENT || size == NGTCP2_ERR_INVALID_STATE) {
            datagrams_.pop_front();
        }
        return size == NGTCP2_ERR_INVALID_ARGUMENT || size == NGTCP2_ERR_INVALID_STATE ? 0 : size;
    }
    return ngtcp2_conn_write_pkt(connection_, nullptr, &info, out.data(), out.size(), now);
}

std::optional<std::array<uint8_t, 32>> quic_client::exporter() const {
    std::array<uint8_t, 32> bytes;
    if (ngtcp2_conn_get_handshake_completed(connection_) == 0 ||
        !tls_->exporter(tndm::control::join_exporter_label, {}, bytes)) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace fuzz
