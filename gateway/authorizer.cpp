#include "gateway/authorizer.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

namespace tandem {

secret_authorizer_t::secret_authorizer_t(const std::string& secret) : usable_(hash(secret, expected_)) {}

bool secret_authorizer_t::hash(const std::string& text, hash_t& out) {
    return gnutls_hash_fast(GNUTLS_DIG_SHA256, text.data(), text.size(), out.data()) == 0;
}

int secret_authorizer_t::authorize(const presented_t& client, std::string& reason) {
    hash_t presented{};
    const bool hashed = hash(client.credential, presented);
    if (hashed && usable_ && gnutls_memcmp(presented.data(), expected_.data(), expected_.size()) == 0) return 0;
    reason = "wrong secret";
    return wrong_secret;
}

}  // namespace tandem
