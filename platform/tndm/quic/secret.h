/* Random bytes, digests, and keys that are wiped when they go. */
#ifndef TANDEM_PLATFORM_TNDM_QUIC_SECRET_H
#define TANDEM_PLATFORM_TNDM_QUIC_SECRET_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tndm {

/* Overwrites in a way that the compiler keeps. */
void wipe(std::span<uint8_t> bytes);

/* Key material of N bytes, zero at first; every copy wipes itself. */
template <size_t N>
class secret {
  public:
    secret() = default;
    explicit secret(std::span<const uint8_t, N> bytes) { std::copy(bytes.begin(), bytes.end(), bytes_.begin()); }
    secret(const secret&) = default;
    secret& operator=(const secret&) = default;
    ~secret() { wipe(bytes_); }

    uint8_t* data() { return bytes_.data(); }
    const uint8_t* data() const { return bytes_.data(); }
    static constexpr size_t size() { return N; }
    std::span<uint8_t, N> span() { return bytes_; }
    std::span<const uint8_t, N> span() const { return bytes_; }

  private:
    std::array<uint8_t, N> bytes_{};
};

using digest_t = std::array<uint8_t, 32>;

/* For keys and secrets. A machine without randomness ends the process: nothing safe could follow. */
void random_bytes(std::span<uint8_t> out);
/* For ids and other values that are sent in the clear: cheaper, still unpredictable. */
void random_nonce(std::span<uint8_t> out);

digest_t sha256(std::span<const uint8_t> data);
digest_t hmac_sha256(std::span<const uint8_t> key, std::span<const uint8_t> data);
/* In a time that depends on the sizes only. */
bool constant_time_equal(std::span<const uint8_t> a, std::span<const uint8_t> b);

/* What a joining subflow shows: the bundle's secret over the exporter bytes of its own TLS session, so that a proof
 * seen on one QUIC connection is worth nothing on another. */
digest_t join_proof(const secret<32>& join_secret, std::span<const uint8_t> exporter);

}  // namespace tndm

#endif
