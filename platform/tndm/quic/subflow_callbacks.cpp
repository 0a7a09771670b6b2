// What the library tells a subflow. The library forbids writing from inside these; they only take note.
#include <algorithm>
#include <chrono>

#include "platform/tndm/quic/secret.h"
#include "platform/tndm/quic/subflow.h"

namespace tndm {

namespace {

// Every path carries QUIC packets of 1200 bytes; a chunk above this size needs more.
constexpr uint64_t small_chunk = 1120;
// Large chunks lost so many times, at least a round trip apart, with none of them arriving between: a hole and not a
// full queue, which loses many at once.
constexpr unsigned hole_after = 3;
constexpr core::duration shortest_spacing = std::chrono::milliseconds(100);

}  // namespace

ngtcp2_callbacks subflow::callbacks(bool server) {
    ngtcp2_callbacks calls{};
    if (server) {
        calls.recv_client_initial = ngtcp2_crypto_recv_client_initial_cb;
    } else {
        calls.client_initial = ngtcp2_crypto_client_initial_cb;
        calls.recv_retry = ngtcp2_crypto_recv_retry_cb;
    }
    calls.recv_crypto_data = tls_session::receive_crypto_data;
    calls.encrypt = ngtcp2_crypto_encrypt_cb;
    calls.decrypt = ngtcp2_crypto_decrypt_cb;
    calls.hp_mask = ngtcp2_crypto_hp_mask_cb;
    calls.update_key = ngtcp2_crypto_update_key_cb;
    calls.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
    calls.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
    calls.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
    calls.version_negotiation = ngtcp2_crypto_version_negotiation_cb;
    calls.handshake_completed = on_handshake_completed;
    calls.recv_stream_data = on_stream_data;
    calls.acked_stream_data_offset = on_stream_acknowledged;
    calls.stream_open = on_stream_open;
    calls.recv_datagram = on_datagram;
    calls.ack_datagram = on_datagram_acknowledged;
    calls.lost_datagram = on_datagram_lost;
    calls.get_new_connection_id = on_new_id;
    calls.remove_connection_id = on_remove_id;
    calls.recv_stateless_reset = on_stateless_reset;
    calls.rand = on_random;
    return calls;
}

int subflow::on_handshake_completed(ngtcp2_conn* connection, void* user) {
    subflow& self = of(user);
    self.handshake_completed_ = true;
    if (ngtcp2_conn_is_server(connection) == 0) {
        int64_t stream = -1;
        if (ngtcp2_conn_open_bidi_stream(connection, &stream, nullptr) != 0) {
            return NGTCP2_ERR_CALLBACK_FAILURE;
        }
        self.stream_ = stream;
    }
    return 0;
}

int subflow::on_stream_open(ngtcp2_conn*, int64_t stream, void* user) {
    subflow& self = of(user);
    // The client's one stream; the credit for others is never meant to be used.
    if (stream != 0 || self.stream_ != -1) {
        return NGTCP2_ERR_CALLBACK_FAILURE;
    }
    self.stream_ = stream;
    return 0;
}

int subflow::on_stream_data(ngtcp2_conn* connection, uint32_t, int64_t stream, uint64_t, const uint8_t* data,
                            size_t size, void* user, void*) {
    subflow& self = of(user);
    if (stream != self.stream_ || !self.stream_in_.push({data, size})) {
        return NGTCP2_ERR_CALLBACK_FAILURE;
    }
    ngtcp2_conn_extend_max_stream_offset(connection, stream, size);
    ngtcp2_conn_extend_max_offset(connection, size);
    return 0;
}

int subflow::on_stream_acknowledged(ngtcp2_conn*, int64_t, uint64_t, uint64_t size, void* user, void*) {
    subflow& self = of(user);
    self.stream_acknowledged_ += size;
    while (self.stream_next_ > 0 && self.stream_acknowledged_ >= self.stream_out_.front().size()) {
        self.stream_acknowledged_ -= self.stream_out_.front().size();
        self.stream_out_.pop_front();
        --self.stream_next_;
    }
    return 0;
}

int subflow::on_datagram(ngtcp2_conn*, uint32_t, const uint8_t* data, size_t size, void* user) {
    subflow& self = of(user);
    if (self.bundle_ == nullptr) {
        return NGTCP2_ERR_CALLBACK_FAILURE;  // nobody sends datagrams before the subflow has joined
    }
    self.allow_sending();
    self.bundle_->received({data, size}, self.now_);
    return 0;
}

int subflow::on_datagram_acknowledged(ngtcp2_conn*, uint64_t id, void* user) {
    subflow& self = of(user);
    if (self.bundle_ != nullptr) {
        self.note_large_chunk(id, true);
        self.bundle_->acknowledged(self.lane_, id, self.now_);
    }
    return 0;
}

int subflow::on_datagram_lost(ngtcp2_conn*, uint64_t id, void* user) {
    subflow& self = of(user);
    if (self.bundle_ != nullptr) {
        self.note_large_chunk(id, false);
        self.bundle_->lost(self.lane_, id, self.now_);
    }
    return 0;
}

void subflow::note_large_chunk(uint64_t id, bool arrived) {
    const core::lane* lane = bundle_->find_lane(lane_);
    const core::transmission* record = lane == nullptr ? nullptr : lane->in_flight().find(id);
    if (small_only_ || record == nullptr || record->part.size() <= small_chunk) {
        return;
    }
    if (arrived) {
        large_losses_ = 0;
    } else if (now_ - last_large_loss_ >= std::max(lane->rtt(), shortest_spacing)) {
        last_large_loss_ = now_;
        small_only_ = ++large_losses_ >= hole_after;
    }
}

int subflow::on_new_id(ngtcp2_conn*, ngtcp2_cid* id, uint8_t* token, size_t length, void* user) {
    subflow& self = of(user);
    id->datalen = length;
    random_nonce({id->data, length});
    if (self.ids_ != nullptr) {
        self.ids_->reset_token(
            *id, std::span<uint8_t, NGTCP2_STATELESS_RESET_TOKENLEN>(token, NGTCP2_STATELESS_RESET_TOKENLEN));
        self.ids_->add_id(*id);
    } else {
        random_bytes({token, NGTCP2_STATELESS_RESET_TOKENLEN});
    }
    return 0;
}

int subflow::on_remove_id(ngtcp2_conn*, const ngtcp2_cid* id, void* user) {
    if (subflow& self = of(user); self.ids_ != nullptr) {
        self.ids_->remove_id(*id);
    }
    return 0;
}

int subflow::on_stateless_reset(ngtcp2_conn*, const ngtcp2_pkt_stateless_reset*, void* user) {
    of(user).stateless_reset_ = true;
    return 0;
}

void subflow::on_random(uint8_t* out, size_t size, const ngtcp2_rand_ctx*) {
    random_nonce({out, size});
}

}  // namespace tndm
