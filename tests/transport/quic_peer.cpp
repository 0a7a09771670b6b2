#include "tests/transport/quic_peer.h"

#include <arpa/inet.h>
#include <ngtcp2/ngtcp2_crypto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>

namespace transport_test {

namespace {

ngtcp2_tstamp now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<ngtcp2_tstamp>(time.tv_sec) * NGTCP2_SECONDS + static_cast<ngtcp2_tstamp>(time.tv_nsec);
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

}  // namespace

quic_peer::quic_peer(uint16_t server_port, const options& how) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    local_.sin_family = remote_.sin_family = AF_INET;
    local_.sin_addr.s_addr = remote_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    remote_.sin_port = htons(server_port);
    socklen_t length = sizeof local_;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&local_), length) != 0 ||
        connect(fd_, reinterpret_cast<sockaddr*>(&remote_), length) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&local_), &length) != 0) {
        throw std::runtime_error("no UDP socket");
    }
    std::string error;
    auto credentials = tndm::client_credentials::load("insecure:yes", "server.test", error);
    tls_ = tndm::tls_session::create_client(credentials, how.alpn, error);

    auto calls = library_callbacks();
    calls.recv_stream_data = on_stream;
    calls.recv_datagram = on_datagram;
    ngtcp2_settings library;
    ngtcp2_settings_default(&library);
    library.initial_ts = now();
    ngtcp2_transport_params params;
    ngtcp2_transport_params_default(&params);
    params.initial_max_data = params.initial_max_stream_data_bidi_local = 1 << 20;
    params.initial_max_streams_uni = 1 << 14;
    params.max_datagram_frame_size = how.datagram_size;
    params.max_idle_timeout = 60 * NGTCP2_SECONDS;
    path_ = {{reinterpret_cast<sockaddr*>(&local_), sizeof local_},
             {reinterpret_cast<sockaddr*>(&remote_), sizeof remote_},
             nullptr};
    const ngtcp2_cid server_id = random_id();
    const ngtcp2_cid own_id = random_id();
    if (ngtcp2_conn_client_new(&connection_, &server_id, &own_id, &path_, NGTCP2_PROTO_VER_V1, &calls, &library,
                               &params, nullptr, this) != 0) {
        throw std::runtime_error("no connection");
    }
    tls_->attach(connection_);
}

quic_peer::~quic_peer() {
    ngtcp2_conn_del(connection_);
    close(fd_);
}

int quic_peer::on_stream(ngtcp2_conn*, uint32_t, int64_t, uint64_t, const uint8_t* data, size_t size, void* user,
                         void*) {
    return static_cast<quic_peer*>(user)->messages_.push({data, size}) ? 0 : NGTCP2_ERR_CALLBACK_FAILURE;
}

int quic_peer::on_datagram(ngtcp2_conn*, uint32_t, const uint8_t*, size_t, void* user) {
    ++static_cast<quic_peer*>(user)->datagrams_received_;
    return 0;
}

bool quic_peer::drive(const std::function<bool()>& done, milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (error_ == 0) {
        write();
        if (done()) {
            return true;
        }
        const auto left = end - std::chrono::steady_clock::now();
        if (left.count() <= 0) {
            return false;
        }
        const ngtcp2_tstamp expiry = ngtcp2_conn_get_expiry(connection_);
        const ngtcp2_tstamp time = now();
        const auto wait = std::min<uint64_t>(static_cast<uint64_t>(left.count()), expiry > time ? expiry - time : 0);
        const timespec timeout{static_cast<time_t>(wait / NGTCP2_SECONDS), static_cast<long>(wait % NGTCP2_SECONDS)};
        pollfd watched{fd_, POLLIN, 0};
        if (ppoll(&watched, 1, &timeout, nullptr) > 0) {
            read();
        }
        if (error_ == 0 && ngtcp2_conn_get_expiry(connection_) <= now()) {
            error_ = ngtcp2_conn_handle_expiry(connection_, now());
        }
    }
    return done();
}

void quic_peer::read() {
    uint8_t buffer[65536];
    for (ssize_t got; error_ == 0 && (got = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
        const ngtcp2_pkt_info info{};
        error_ = ngtcp2_conn_read_pkt(connection_, &path_, &info, buffer, static_cast<size_t>(got), now());
    }
}

void quic_peer::write() {
    while (error_ == 0 && write_one()) {
    }
    ngtcp2_conn_update_pkt_tx_time(connection_, now());
}

bool quic_peer::write_one() {
    uint8_t out[1452];
    ngtcp2_pkt_info info{};
    ngtcp2_ssize size = 0;
    const bool ready = ngtcp2_conn_get_handshake_completed(connection_) != 0;
    if (ready && stream_given_ < stream_.size()) {
        if (stream_id_ == -1) {
            ngtcp2_conn_open_bidi_stream(connection_, &stream_id_, nullptr);
        }
        const ngtcp2_vec rest{stream_.data() + stream_given_, stream_.size() - stream_given_};
        ngtcp2_ssize taken = -1;
        size = ngtcp2_conn_writev_stream(connection_, nullptr, &info, out, sizeof out, &taken, 0, stream_id_, &rest, 1,
                                         now());
        stream_given_ += taken > 0 ? static_cast<size_t>(taken) : 0;
        if (size == NGTCP2_ERR_STREAM_DATA_BLOCKED) {
            size = ngtcp2_conn_write_pkt(connection_, nullptr, &info, out, sizeof out, now());
        }
    } else if (ready && !datagrams_.empty()) {
        auto& next = datagrams_.front();
        const ngtcp2_vec whole{next.data(), next.size()};
        int accepted = 0;
        size = ngtcp2_conn_writev_datagram(connection_, nullptr, &info, out, sizeof out, &accepted, 0, 1, &whole, 1,
                                           now());
        if (accepted != 0) {
            datagrams_.pop_front();
        }
    } else {
        size = ngtcp2_conn_write_pkt(connection_, nullptr, &info, out, sizeof out, now());
    }
    if (size < 0) {
        error_ = static_cast<int>(size);
    } else if (size > 0) {
        send(fd_, out, static_cast<size_t>(size), 0);
    }
    return size > 0;
}

bool quic_peer::handshake(milliseconds limit) {
    return drive([&] { return ngtcp2_conn_get_handshake_completed(connection_) != 0; }, limit);
}

std::optional<tndm::control::message> quic_peer::next_message(milliseconds limit) {
    std::optional<tndm::control::message> found;
    drive([&] { return (found = messages_.next()).has_value(); }, limit);
    return found;
}

bool quic_peer::closed(milliseconds limit) {
    drive([] { return false; }, limit);
    return error_ == NGTCP2_ERR_DRAINING;
}

std::optional<tndm::control::welcome> quic_peer::join_new(const std::string& path, uint32_t linger) {
    if (!handshake()) {
        return std::nullopt;
    }
    say(tndm::control::hello{path, {100, 1 << 20, 4 << 20}, linger});
    const auto answer = next_message();
    if (!answer || !std::holds_alternative<tndm::control::welcome>(*answer)) {
        return std::nullopt;
    }
    say(tndm::control::ready{});
    return std::get<tndm::control::welcome>(*answer);
}

uint64_t quic_peer::error_code() const {
    ngtcp2_connection_close_error reason;
    ngtcp2_conn_get_connection_close_error(connection_, &reason);
    return reason.error_code;
}

}  // namespace transport_test
