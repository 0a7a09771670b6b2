// What the server answers to packets that no connection of it stands behind.
#include <algorithm>
#include <array>

#include "platform/tndm/endpoint/server.h"
#include "platform/tndm/udp/socket.h"

namespace tndm {

namespace {

// Handshakes that may be open before clients must show that their address is their own.
constexpr size_t retry_above = 64;
constexpr ngtcp2_duration token_lifetime = 10 * NGTCP2_SECONDS;
constexpr unsigned resets_a_second = 200;

}  // namespace

bool server::check_token(const endpoint& local, const endpoint& remote, const ngtcp2_pkt_hd& head,
                         subflow::first_packet& first, const pass& p) {
    const bool crowded = handshakes_ >= retry_above;
    if (head.token.len == 0 || head.token.base[0] != NGTCP2_CRYPTO_TOKEN_MAGIC_RETRY) {
        if (crowded) {
            send_retry(local, remote, head, p);
        }
        return !crowded;
    }
    ngtcp2_cid original;
    const auto& key = credentials_->token_key();
    if (ngtcp2_crypto_verify_retry_token(&original, head.token.base, head.token.len, key.data(), key.size(),
                                         head.version, remote.address(), remote.length, &head.dcid, token_lifetime,
                                         static_cast<ngtcp2_tstamp>(p.now.time_since_epoch().count())) != 0) {
        return false;
    }
    first.first_id = original;
    first.retry_id = head.dcid;
    first.token = {head.token.base, head.token.len};
    return true;
}

void server::send_retry(const endpoint& local, const endpoint& remote, const ngtcp2_pkt_hd& head, const pass& p) {
    ngtcp2_cid own;
    own.datalen = subflow::server_id_length;
    random_nonce({own.data, own.datalen});
    std::array<uint8_t, NGTCP2_CRYPTO_MAX_RETRY_TOKENLEN> token;
    const auto& key = credentials_->token_key();
    const ngtcp2_ssize token_size = ngtcp2_crypto_generate_retry_token(
        token.data(), key.data(), key.size(), head.version, remote.address(), remote.length, &own, &head.dcid,
        static_cast<ngtcp2_tstamp>(p.now.time_since_epoch().count()));
    if (token_size < 0) {
        return;
    }
    std::array<uint8_t, 512> out;
    const ngtcp2_ssize size = ngtcp2_crypto_write_retry(out.data(), out.size(), head.version, &head.scid, &own,
                                                        &head.dcid, token.data(), static_cast<size_t>(token_size));
    if (size > 0) {
        answer(local, remote, std::span(out).first(static_cast<size_t>(size)));
    }
}

void server::send_version_negotiation(const endpoint& local, const endpoint& remote, const ngtcp2_version_cid& ids) {
    std::array<uint8_t, 256> out;
    std::array<uint8_t, 1> random;
    random_nonce(random);
    const uint32_t version = NGTCP2_PROTO_VER_V1;
    const ngtcp2_ssize size = ngtcp2_pkt_write_version_negotiation(out.data(), out.size(), random[0], ids.scid,
                                                                   ids.scidlen, ids.dcid, ids.dcidlen, &version, 1);
    if (size > 0) {
        answer(local, remote, std::span(out).first(static_cast<size_t>(size)));
    }
}

// Tells a client of an earlier life of this server that its connection is gone.
void server::send_stateless_reset(const endpoint& local, const endpoint& remote, const ngtcp2_version_cid& ids,
                                  size_t received, const pass& p) {
    // Shorter than what it answers, so that two of us cannot go on for ever, and long enough to look like a packet.
    constexpr size_t shortest = NGTCP2_MIN_STATELESS_RESET_RANDLEN + NGTCP2_STATELESS_RESET_TOKENLEN;
    if (received <= shortest || ids.dcidlen != subflow::server_id_length) {
        return;
    }
    if (p.now - reset_window_ >= std::chrono::seconds(1)) {
        reset_window_ = p.now;
        resets_in_window_ = 0;
    }
    if (++resets_in_window_ > resets_a_second) {
        return;
    }
    ngtcp2_cid id;
    ngtcp2_cid_init(&id, ids.dcid, ids.dcidlen);
    std::array<uint8_t, NGTCP2_STATELESS_RESET_TOKENLEN> token;
    const auto& key = credentials_->reset_key();
    if (ngtcp2_crypto_generate_stateless_reset_token(token.data(), key.data(), key.size(), &id) != 0) {
        return;
    }
    std::array<uint8_t, 32> random;
    random_nonce(random);
    const size_t random_size = std::min(random.size(), received - 1 - NGTCP2_STATELESS_RESET_TOKENLEN);
    std::array<uint8_t, 64> out;
    const ngtcp2_ssize size =
        ngtcp2_pkt_write_stateless_reset(out.data(), out.size(), token.data(), random.data(), random_size);
    if (size > 0) {
        answer(local, remote, std::span(out).first(static_cast<size_t>(size)));
    }
}

void server::answer(const endpoint& local, const endpoint& remote, std::span<const uint8_t> datagram) {
    const endpoint* source = bound_.is_wildcard() && !local.is_wildcard() ? &local : nullptr;
    sender_.send(socket_, remote, source, datagram, datagram.size(), 0);
}

}  // namespace tndm
