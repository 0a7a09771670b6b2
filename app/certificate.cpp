#include "app/certificate.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "app/endpoint.h"
#include "app/failure.h"
#include "app/file.h"

namespace tandem::app {
namespace {

constexpr int64_t clock_skew_seconds = 3600;
constexpr int64_t lifetime_seconds = int64_t{3650} * 24 * 3600;

void check(int result, const char* step) {
    if (result < 0) throw failure_t(std::string("certificate: ") + step + " failed: " + gnutls_strerror(result));
}

class private_key_t {
  public:
    private_key_t() { check(gnutls_x509_privkey_init(&key_), "preparing a key"); }
    ~private_key_t() { gnutls_x509_privkey_deinit(key_); }
    private_key_t(const private_key_t&) = delete;
    private_key_t& operator=(const private_key_t&) = delete;
    gnutls_x509_privkey_t get() const { return key_; }

  private:
    gnutls_x509_privkey_t key_ = nullptr;
};

class x509_t {
  public:
    x509_t() { check(gnutls_x509_crt_init(&crt_), "preparing a certificate"); }
    ~x509_t() { gnutls_x509_crt_deinit(crt_); }
    x509_t(const x509_t&) = delete;
    x509_t& operator=(const x509_t&) = delete;
    gnutls_x509_crt_t get() const { return crt_; }

  private:
    gnutls_x509_crt_t crt_ = nullptr;
};

class credentials_t {
  public:
    credentials_t() { check(gnutls_certificate_allocate_credentials(&credentials_), "preparing credentials"); }
    ~credentials_t() { gnutls_certificate_free_credentials(credentials_); }
    credentials_t(const credentials_t&) = delete;
    credentials_t& operator=(const credentials_t&) = delete;
    gnutls_certificate_credentials_t get() const { return credentials_; }

  private:
    gnutls_certificate_credentials_t credentials_ = nullptr;
};

std::string take(gnutls_datum_t& datum) {
    std::string text(reinterpret_cast<const char*>(datum.data), datum.size);
    gnutls_memset(datum.data, 0, datum.size);
    gnutls_free(datum.data);
    return text;
}

// The bytes of a numeric address, empty for a name.
std::string address_bytes(const std::string& name) {
    char bytes[sizeof(in6_addr)];
    if (inet_pton(AF_INET, name.c_str(), bytes) == 1) return std::string(bytes, sizeof(in_addr));
    if (inet_pton(AF_INET6, name.c_str(), bytes) == 1) return std::string(bytes, sizeof(in6_addr));
    return "";
}

void set_names(gnutls_x509_crt_t crt, const std::vector<std::string>& names) {
    // A common name holds 64 characters at most; the names that count are the alternative ones.
    const std::string common = names.front().substr(0, 64);
    check(gnutls_x509_crt_set_dn_by_oid(crt, GNUTLS_OID_X520_COMMON_NAME, 0, common.data(),
                                        static_cast<unsigned>(common.size())),
          "naming");
    for (const std::string& name : names) {
        const std::string address = address_bytes(name);
        const std::string& value = address.empty() ? name : address;
        const auto kind = address.empty() ? GNUTLS_SAN_DNSNAME : GNUTLS_SAN_IPADDRESS;
        check(gnutls_x509_crt_set_subject_alt_name(crt, kind, value.data(), static_cast<unsigned>(value.size()),
                                                   GNUTLS_FSAN_APPEND),
              "naming");
    }
}

void set_serial(gnutls_x509_crt_t crt) {
    unsigned char serial[16];
    check(gnutls_rnd(GNUTLS_RND_NONCE, serial, sizeof(serial)), "numbering");
    serial[0] = static_cast<unsigned char>((serial[0] & 0x7f) | 0x40);  // positive, and without a leading zero byte
    check(gnutls_x509_crt_set_serial(crt, serial, sizeof(serial)), "numbering");
}

void set_lifetime(gnutls_x509_crt_t crt) {
    const int64_t now = time(nullptr);
    const int64_t end = std::min<int64_t>(now + lifetime_seconds, std::numeric_limits<time_t>::max());
    check(gnutls_x509_crt_set_activation_time(crt, static_cast<time_t>(now - clock_skew_seconds)), "dating");
    check(gnutls_x509_crt_set_expiration_time(crt, static_cast<time_t>(end)), "dating");
}

std::string pin_of(gnutls_x509_crt_t crt) {
    unsigned char hash[32];
    size_t size = sizeof(hash);
    check(gnutls_x509_crt_get_key_id(crt, GNUTLS_KEYID_USE_SHA256, hash, &size), "hashing the public key");
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += digits[hash[i] >> 4];
        text += digits[hash[i] & 15];
    }
    return text;
}

void check_readable(const std::string& option, const std::string& path) {
    const file_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    char byte;
    if (!file || read(file.fd(), &byte, 1) < 0) {
        throw failure_t(option + ": cannot read " + path + " (" + strerror(errno) +
                        "); give a PEM file that this user can read, `tandem cert --out DIR` makes one");
    }
}

}  // namespace

bool is_certificate_name(std::string_view name) {
    const std::string text(name);
    return !address_bytes(text).empty() || parse_endpoint(text, 1) == endpoint_t{text, 1};
}

certificate_text_t make_certificate(const std::vector<std::string>& names) {
    const private_key_t key;
    const unsigned curve = GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1);
    check(gnutls_x509_privkey_generate(key.get(), GNUTLS_PK_ECDSA, curve, 0), "making a key");

    const x509_t crt;
    check(gnutls_x509_crt_set_version(crt.get(), 3), "preparing a certificate");
    set_serial(crt.get());
    set_lifetime(crt.get());
    set_names(crt.get(), names);
    check(gnutls_x509_crt_set_basic_constraints(crt.get(), 0, -1), "limiting its use");
    check(gnutls_x509_crt_set_key_usage(crt.get(), GNUTLS_KEY_DIGITAL_SIGNATURE), "limiting its use");
    check(gnutls_x509_crt_set_key_purpose_oid(crt.get(), GNUTLS_KP_TLS_WWW_SERVER, 0), "limiting its use");
    check(gnutls_x509_crt_set_key(crt.get(), key.get()), "setting the public key");
    check(gnutls_x509_crt_sign2(crt.get(), crt.get(), key.get(), GNUTLS_DIG_SHA256, 0), "signing");

    certificate_text_t made;
    gnutls_datum_t datum{};
    check(gnutls_x509_crt_export2(crt.get(), GNUTLS_X509_FMT_PEM, &datum), "writing the certificate");
    made.cert = take(datum);
    check(gnutls_x509_privkey_export2_pkcs8(key.get(), GNUTLS_X509_FMT_PEM, nullptr, GNUTLS_PKCS_PLAIN, &datum),
          "writing the key");
    made.key = take(datum);
    made.pin = pin_of(crt.get());
    return made;
}

void check_key_pair(const std::string& cert_file, const std::string& key_file) {
    check_readable("--cert", cert_file);
    check_readable("--key", key_file);
    const credentials_t credentials;
    const int result = gnutls_certificate_set_x509_key_file(credentials.get(), cert_file.c_str(), key_file.c_str(),
                                                            GNUTLS_X509_FMT_PEM);
    if (result == GNUTLS_E_CERTIFICATE_KEY_MISMATCH) {
        throw failure_t("--key: " + key_file + " is not the key of the certificate " + cert_file +
                        "; give the two files that were made together");
    }
    if (result < 0) {
        throw failure_t("--cert, --key: cannot use " + cert_file + " with " + key_file + " (" +
                        gnutls_strerror(result) +
                        "); give PEM files without a password, `tandem cert --out DIR` makes them");
    }
}

}  // namespace tandem::app
