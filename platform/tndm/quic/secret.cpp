#include "platform/tndm/quic/secret.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace tndm {
namespace {

void must(int result, const char* what) {
    if (result >= 0) return;
    std::fprintf(stderr, "tndm: %s failed: %s\n", what, gnutls_strerror(result));
    std::abort();
}

}  // namespace

void wipe(std::span<uint8_t> bytes) {
    if (!bytes.empty()) gnutls_memset(bytes.data(), 0, bytes.size());
}

void random_bytes(std::span<uint8_t> out) {
    must(gnutls_rnd(GNUTLS_RND_KEY, out.data(), out.size()), "randomness");
}

void random_nonce(std::span<uint8_t> out) {
    must(gnutls_rnd(GNUTLS_RND_NONCE, out.data(), out.size()), "randomness");
}

digest_t sha256(std::span<const uint8_t> data) {
    digest_t digest;
    must(gnutls_hash_fast(GNUTLS_DIG_SHA256, data.data(), data.size(), digest.data()), "SHA-256");
    return digest;
}

digest_t hmac_sha256(std::span<const uint8_t> key, std::span<const uint8_t> data) {
    digest_t digest;
    must(gnutls_hmac_fast(GNUTLS_MAC_SHA256, key.data(), key.size(), data.data(), data.size(), digest.data()), "HMAC");
    return digest;
}

bool constant_time_equal(std::span<const uint8_t> a, std::span<const uint8_t> b) {
    return a.size() == b.size() && gnutls_memcmp(a.data(), b.data(), a.size()) == 0;
}

digest_t join_proof(const secret<32>& join_secret, std::span<const uint8_t> exporter) {
    constexpr std::string_view label = "tandem join";
    std::vector<uint8_t> message(label.begin(), label.end());
    message.insert(message.end(), exporter.begin(), exporter.end());
    const digest_t proof = hmac_sha256(join_secret.span(), message);
    wipe(message);
    return proof;
}

}  // namespace tndm
