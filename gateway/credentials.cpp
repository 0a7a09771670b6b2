#include "gateway/credentials.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

namespace tandem {

shared_secret_t::shared_secret_t(const std::string& secret) : usable_(hash(secret, expected_)) {}

bool shared_secret_t::hash(const std::string& text, hash_t& out) {
    return gnutls_hash_fast(GNUTLS_DIG_SHA256, text.data(), text.size(), out.data()) == 0;
}

std::optional<admission_t> shared_secret_t::check(const presented_t& client) const {
    hash_t presented{};
    const bool hashed = hash(client.credential, presented);
    if (!hashed || !usable_ || gnutls_memcmp(presented.data(), expected_.data(), expected_.size()) != 0) {
        return std::nullopt;
    }
    return admission_t{client_id, {}};
}

}  // namespace tandem
