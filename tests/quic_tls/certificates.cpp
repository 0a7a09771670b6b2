#include "tests/quic_tls/certificates.h"

#include <arpa/inet.h>
#include <gnutls/crypto.h>

#include <stdexcept>

namespace tndm {
namespace {

void must(int result) {
    if (result < 0) throw std::runtime_error(gnutls_strerror(result));
}

std::string take(gnutls_datum_t datum) {
    std::string text(reinterpret_cast<const char*>(datum.data), datum.size);
    gnutls_free(datum.data);
    return text;
}

}  // namespace

private_key::private_key(gnutls_pk_algorithm_t algorithm) : handle_(nullptr, gnutls_x509_privkey_deinit) {
    gnutls_x509_privkey_t made = nullptr;
    must(gnutls_x509_privkey_init(&made));
    handle_.reset(made);
    const unsigned bits = algorithm == GNUTLS_PK_RSA ? 2048 : GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1);
    must(gnutls_x509_privkey_generate(made, algorithm, algorithm == GNUTLS_PK_EDDSA_ED25519 ? 256 : bits, 0));
}

std::string private_key::pem() const {
    /* Ed25519 has no other encoding than PKCS #8. */
    if (gnutls_x509_privkey_get_pk_algorithm(handle()) == GNUTLS_PK_EDDSA_ED25519) return pem_pkcs8();
    gnutls_datum_t out;
    must(gnutls_x509_privkey_export2(handle(), GNUTLS_X509_FMT_PEM, &out));
    return take(out);
}

std::string private_key::pem_pkcs8(const std::string& password) const {
    gnutls_datum_t out;
    const bool plain = password.empty();
    must(gnutls_x509_privkey_export2_pkcs8(handle(), GNUTLS_X509_FMT_PEM, plain ? nullptr : password.c_str(),
                                           plain ? GNUTLS_PKCS_PLAIN : GNUTLS_PKCS_PBES2_AES_256, &out));
    return take(out);
}

certificate::certificate(const private_key& key, const certificate_wish& wish, const certificate* issuer,
                         const private_key* issuer_key)
    : handle_(nullptr, gnutls_x509_crt_deinit) {
    gnutls_x509_crt_t made = nullptr;
    must(gnutls_x509_crt_init(&made));
    handle_.reset(made);
    must(gnutls_x509_crt_set_version(made, 3));
    unsigned char serial[8];
    must(gnutls_rnd(GNUTLS_RND_NONCE, serial, sizeof serial));
    serial[0] = 1;
    must(gnutls_x509_crt_set_serial(made, serial, sizeof serial));
    const time_t now = time(nullptr);
    must(gnutls_x509_crt_set_activation_time(made, now + wish.valid_from_days * 86400));
    must(gnutls_x509_crt_set_expiration_time(made, now + wish.valid_to_days * 86400));
    must(gnutls_x509_crt_set_key(made, key.handle()));
    must(gnutls_x509_crt_set_dn_by_oid(made, GNUTLS_OID_X520_COMMON_NAME, 0, wish.common_name.data(),
                                       static_cast<unsigned>(wish.common_name.size())));
    for (const std::string& name : wish.dns_names)
        must(gnutls_x509_crt_set_subject_alt_name(made, GNUTLS_SAN_DNSNAME, name.data(),
                                                  static_cast<unsigned>(name.size()), GNUTLS_FSAN_APPEND));
    if (in_addr address; inet_pton(AF_INET, wish.ipv4.c_str(), &address) == 1)
        must(gnutls_x509_crt_set_subject_alt_name(made, GNUTLS_SAN_IPADDRESS, &address, sizeof address,
                                                  GNUTLS_FSAN_APPEND));
    must(gnutls_x509_crt_set_basic_constraints(made, wish.authority, -1));
    if (wish.authority) must(gnutls_x509_crt_set_key_usage(made, GNUTLS_KEY_KEY_CERT_SIGN));
    const gnutls_x509_crt_t signer = issuer != nullptr ? issuer->handle_.get() : made;
    const gnutls_x509_privkey_t signer_key = issuer_key != nullptr ? issuer_key->handle() : key.handle();
    must(gnutls_x509_crt_sign2(made, signer, signer_key, GNUTLS_DIG_UNKNOWN, 0));
}

std::string certificate::pem() const {
    gnutls_datum_t out;
    must(gnutls_x509_crt_export2(handle_.get(), GNUTLS_X509_FMT_PEM, &out));
    return take(out);
}

}  // namespace tndm
