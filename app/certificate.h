#ifndef TANDEM_APP_CERTIFICATE_H
#define TANDEM_APP_CERTIFICATE_H

#include <string>
#include <string_view>
#include <vector>

namespace tandem::app {

// A host name or a numeric address, as a certificate can name it.
bool is_certificate_name(std::string_view name);

struct certificate_text_t {
    std::string cert;  // PEM
    std::string key;   // PEM, PKCS #8
    std::string pin;   // SHA-256 of the public key in 64 hexadecimal digits
};

// A fresh ECDSA P-256 key (every TLS 1.3 peer can check it, and signing is cheap on a router) and a certificate for it,
// signed with itself, for the given names (at least one), from an hour ago for ten years. Throws failure_t.
certificate_text_t make_certificate(const std::vector<std::string>& names);

// Looks whether a server can use the two PEM files: readable, well formed, and of one pair. Throws failure_t with the
// file, the fault and the cure.
void check_key_pair(const std::string& cert_file, const std::string& key_file);

}  // namespace tandem::app

#endif  // TANDEM_APP_CERTIFICATE_H
