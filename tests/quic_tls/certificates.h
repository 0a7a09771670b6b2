/* Keys and certificates made for a test, in a folder that goes with it. */
#ifndef TANDEM_TESTS_QUIC_TLS_CERTIFICATES_H
#define TANDEM_TESTS_QUIC_TLS_CERTIFICATES_H

#include <gnutls/x509.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace tndm {

class temporary_folder {
  public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    /* Writes a file and returns its path. */
    std::string write(const std::string& name, const std::string& content) const;
    std::string path(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

class private_key {
  public:
    explicit private_key(gnutls_pk_algorithm_t algorithm = GNUTLS_PK_ECDSA);
    ~private_key();
    private_key(const private_key&) = delete;
    private_key& operator=(const private_key&) = delete;
    gnutls_x509_privkey_t handle() const { return handle_; }
    /* The algorithm's traditional encoding. */
    std::string pem() const;
    /* PKCS #8, encrypted unless the password is empty. */
    std::string pem_pkcs8(const std::string& password = "") const;

  private:
    gnutls_x509_privkey_t handle_;
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
    ~certificate();
    certificate(const certificate&) = delete;
    certificate& operator=(const certificate&) = delete;
    std::string pem() const;

  private:
    gnutls_x509_crt_t handle_;
};

}  // namespace tndm

#endif
