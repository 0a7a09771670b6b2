/* Keys and certificates made for a test, in a folder that goes with it. */
#ifndef TANDEM_TESTS_QUIC_TLS_CERTIFICATES_H
#define TANDEM_TESTS_QUIC_TLS_CERTIFICATES_H

#include <gnutls/x509.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "tests/common/scratch.h"

namespace tndm {

using temporary_folder = tandem::test::scratch_t;

class private_key {
  public:
    explicit private_key(gnutls_pk_algorithm_t algorithm = GNUTLS_PK_ECDSA);
    gnutls_x509_privkey_t handle() const { return handle_.get(); }
    /* The algorithm's traditional encoding. */
    std::string pem() const;
    /* PKCS #8, encrypted unless the password is empty. */
    std::string pem_pkcs8(const std::string& password = "") const;

  private:
    std::unique_ptr<gnutls_x509_privkey_int, decltype(&gnutls_x509_privkey_deinit)> handle_;
};

struct certificate_wish {
    std::string common_name = "server.test";
    std::vector<std::string> dns_names = {"server.test"};
    std::string ipv4 = {};
    bool authority = false;
    int valid_from_days = -1;
    int valid_to_days = 30;
};

class certificate {
  public:
    /* Signed by `issuer` with its key, or by itself. */
    certificate(const private_key& key, const certificate_wish& wish, const certificate* issuer = nullptr,
                const private_key* issuer_key = nullptr);
    std::string pem() const;

  private:
    std::unique_ptr<gnutls_x509_crt_int, decltype(&gnutls_x509_crt_deinit)> handle_;
};

}  // namespace tndm

#endif
