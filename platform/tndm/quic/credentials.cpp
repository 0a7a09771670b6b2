#include "platform/tndm/quic/credentials.h"

#include <gnutls/abstract.h>
#include <gnutls/x509.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

namespace tndm {
namespace {

/* Memory of the TLS library, wiped before it goes: it may hold a private key. */
class datum {
  public:
    datum() = default;
    datum(const datum&) = delete;
    datum& operator=(const datum&) = delete;
    ~datum() {
        if (value_.data == nullptr) return;
        wipe({value_.data, value_.size});
        gnutls_free(value_.data);
    }
    gnutls_datum_t* get() { return &value_; }
    std::span<const uint8_t> bytes() const { return {value_.data, value_.size}; }

  private:
    gnutls_datum_t value_{nullptr, 0};
};

/* A PEM chain, leaf first. */
class certificate_chain {
  public:
    certificate_chain() = default;
    certificate_chain(const certificate_chain&) = delete;
    certificate_chain& operator=(const certificate_chain&) = delete;
    ~certificate_chain() {
        for (unsigned i = 0; i < count_; ++i)
            gnutls_x509_crt_deinit(list_[i]);
        gnutls_free(list_);
    }
    int import(const gnutls_datum_t& pem) {
        return gnutls_x509_crt_list_import2(&list_, &count_, &pem, GNUTLS_X509_FMT_PEM, GNUTLS_X509_CRT_LIST_SORT);
    }
    gnutls_x509_crt_t* list() const { return list_; }
    unsigned count() const { return count_; }

  private:
    gnutls_x509_crt_t* list_ = nullptr;
    unsigned count_ = 0;
};

struct certificate_deleter {
    void operator()(gnutls_x509_crt_t certificate) const { gnutls_x509_crt_deinit(certificate); }
};
using certificate_ptr = std::unique_ptr<std::remove_pointer_t<gnutls_x509_crt_t>, certificate_deleter>;

struct private_key_deleter {
    void operator()(gnutls_x509_privkey_t key) const { gnutls_x509_privkey_deinit(key); }
};
using private_key_ptr = std::unique_ptr<std::remove_pointer_t<gnutls_x509_privkey_t>, private_key_deleter>;

bool read_file(const std::string& path, datum& content, std::string& error) {
    errno = 0;
    if (gnutls_load_file(path.c_str(), content.get()) == 0) return true;
    error = "cannot read " + path + ": " + std::strerror(errno != 0 ? errno : EIO);
    return false;
}

certificate_credentials_ptr new_credentials() {
    gnutls_certificate_credentials_t credentials = nullptr;
    if (gnutls_certificate_allocate_credentials(&credentials) < 0) return nullptr;
    return certificate_credentials_ptr(credentials);
}

std::string hex(std::span<const uint8_t> bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::optional<digest_t> from_hex(std::string_view text) {
    digest_t digest;
    if (text.size() != 2 * digest.size()) return std::nullopt;
    const auto nibble = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    for (size_t i = 0; i < digest.size(); ++i) {
        const int high = nibble(text[2 * i]);
        const int low = nibble(text[2 * i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        digest[i] = static_cast<uint8_t>(high * 16 + low);
    }
    return digest;
}

std::optional<digest_t> public_key_digest(gnutls_x509_crt_t certificate) {
    digest_t digest;
    size_t size = digest.size();
    if (gnutls_x509_crt_get_key_id(certificate, GNUTLS_KEYID_USE_SHA256, digest.data(), &size) < 0) return std::nullopt;
    return digest;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// What somebody wrote, for a message of one line.
std::string in_one_line(std::string_view text) {
    std::string shown(text);
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return shown;
}

std::span<const uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

secret<32> derive(std::span<const uint8_t> key, std::string_view label) {
    digest_t digest = hmac_sha256(key, bytes_of(label));
    const secret<32> result(digest);
    wipe(digest);
    return result;
}

certificate_ptr peer_certificate(gnutls_session_t session) {
    unsigned count = 0;
    const gnutls_datum_t* chain = gnutls_certificate_get_peers(session, &count);
    gnutls_x509_crt_t certificate = nullptr;
    if (chain == nullptr || count == 0 || gnutls_x509_crt_init(&certificate) < 0) return nullptr;
    certificate_ptr result(certificate);
    if (gnutls_x509_crt_import(certificate, &chain[0], GNUTLS_X509_FMT_DER) < 0) return nullptr;
    return result;
}

std::string presented_pin(gnutls_session_t session) {
    const certificate_ptr certificate = peer_certificate(session);
    const auto digest = certificate ? public_key_digest(certificate.get()) : std::nullopt;
    return digest ? hex(*digest) : "(unreadable)";
}

std::string status_text(unsigned status) {
    datum text;
    if (gnutls_certificate_verification_status_print(status, GNUTLS_CRT_X509, text.get(), 0) < 0) return "not trusted";
    return std::string(trimmed(reinterpret_cast<const char*>(text.get()->data)));
}

}  // namespace

std::shared_ptr<const server_credentials> server_credentials::load(const std::string& cert_file,
                                                                   const std::string& key_file, std::string& error) {
    datum cert_pem;
    datum key_pem;
    if (!read_file(cert_file, cert_pem, error) || !read_file(key_file, key_pem, error)) return nullptr;

    certificate_chain chain;
    if (const int result = chain.import(*cert_pem.get()); result < 0) {
        error = "no usable certificate in " + cert_file + ": " + gnutls_strerror(result);
        return nullptr;
    }
    gnutls_x509_privkey_t raw_key = nullptr;
    if (gnutls_x509_privkey_init(&raw_key) < 0) {
        error = "out of memory";
        return nullptr;
    }
    const private_key_ptr key(raw_key);
    if (const int result = gnutls_x509_privkey_import2(raw_key, key_pem.get(), GNUTLS_X509_FMT_PEM, nullptr, 0);
        result < 0) {
        error = "no usable private key in " + key_file + ": " + gnutls_strerror(result) +
                (result == GNUTLS_E_DECRYPTION_FAILED ? " (a key with a password cannot be used)" : "");
        return nullptr;
    }

    std::shared_ptr<server_credentials> credentials(new server_credentials);
    credentials->handle_ = new_credentials();
    if (!credentials->handle_) {
        error = "out of memory";
        return nullptr;
    }
    const int result = gnutls_certificate_set_x509_key(credentials->handle_.get(), chain.list(),
                                                       static_cast<int>(chain.count()), raw_key);
    if (result < 0) {
        error = result == GNUTLS_E_CERTIFICATE_KEY_MISMATCH
                    ? "the private key in " + key_file + " does not belong to the certificate in " + cert_file
                    : "cannot serve with " + cert_file + " and " + key_file + ": " + gnutls_strerror(result);
        return nullptr;
    }
    datum der;
    const auto pin = public_key_digest(chain.list()[0]);
    if (!pin ||
        gnutls_x509_privkey_export2_pkcs8(raw_key, GNUTLS_X509_FMT_DER, nullptr, GNUTLS_PKCS_PLAIN, der.get()) < 0) {
        error = "cannot derive keys from " + key_file;
        return nullptr;
    }
    credentials->pin_ = hex(*pin);
    credentials->reset_key_ = derive(der.bytes(), "tandem stateless reset");
    credentials->token_key_ = derive(der.bytes(), "tandem address token");
    return credentials;
}

std::optional<trust> trust::parse(std::string_view text, const std::string& server_host, std::string& error) {
    trust result;
    result.name_ = server_host;
    while (!text.empty()) {
        const size_t end = std::min(text.find(';'), text.size());
        const std::string_view pair = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (pair.empty()) continue;
        const size_t colon = pair.find(':');
        if (colon == std::string_view::npos) {
            error = "trust: \"" + in_one_line(pair) + "\" is not key:value";
            return std::nullopt;
        }
        if (!result.take(trimmed(pair.substr(0, colon)), trimmed(pair.substr(colon + 1)), error)) return std::nullopt;
    }
    if (result.insecure_ && (!result.pins_.empty() || !result.authority_files_.empty())) {
        error = "trust: insecure:yes contradicts ca and pin";
        return std::nullopt;
    }
    return result;
}

bool trust::take(std::string_view key, std::string_view value, std::string& error) {
    const std::string text(value);
    if (text.empty()) {
        error = "trust: \"" + in_one_line(key) + "\" has no value";
        return false;
    }
    if (key == "ca") {
        if (access(text.c_str(), R_OK) != 0) {
            error = "trust: cannot read " + in_one_line(text) + ": " + std::strerror(errno);
            return false;
        }
        authority_files_.push_back(text);
    } else if (key == "name") {
        name_ = text;
        name_given_ = true;
    } else if (key == "pin") {
        const auto digest = from_hex(value);
        if (!digest) {
            error = "trust: pin \"" + in_one_line(text) + "\" is not 64 hexadecimal digits";
            return false;
        }
        pins_.push_back(*digest);
    } else if (key == "insecure") {
        if (text != "yes") {
            error = "trust: insecure takes only \"yes\"";
            return false;
        }
        insecure_ = true;
    } else {
        error = "trust: unknown key \"" + in_one_line(key) + "\" (known: ca, name, pin, insecure)";
        return false;
    }
    return true;
}

std::optional<std::string> trust::verify(gnutls_session_t session) const {
    if (insecure_) return std::nullopt;
    if (gnutls_certificate_type_get2(session, GNUTLS_CTYPE_PEERS) != GNUTLS_CRT_X509 || !peer_certificate(session))
        return "the server showed no readable certificate";
    if (!pins_.empty())
        if (auto problem = verify_pin(session)) return problem;
    if (needs_authorities()) return verify_chain(session);
    if (name_given_ && !gnutls_x509_crt_check_hostname(peer_certificate(session).get(), name_.c_str()))
        return "the server's certificate is not for the name \"" + name_ + "\"";
    return std::nullopt;
}

std::optional<std::string> trust::verify_pin(gnutls_session_t session) const {
    const certificate_ptr certificate = peer_certificate(session);
    const auto shown = certificate ? public_key_digest(certificate.get()) : std::nullopt;
    if (!shown) return "the server's public key is unreadable";
    bool known = false;
    for (const digest_t& pin : pins_)
        known |= constant_time_equal(pin, *shown);
    if (known) return std::nullopt;
    return "the server's certificate does not match the pin; it has pin:" + hex(*shown) +
           " (use that one only if the server's operator confirms it)";
}

std::optional<std::string> trust::verify_chain(gnutls_session_t session) const {
    unsigned status = 0;
    const int result = gnutls_certificate_verify_peers3(session, name_.c_str(), &status);
    if (result < 0) return std::string("the server's certificate cannot be checked: ") + gnutls_strerror(result);
    if (status == 0) return std::nullopt;
    return "the server's certificate is not accepted for \"" + name_ + "\": " + status_text(status) +
           " It has pin:" + presented_pin(session) +
           " (name its authority with ca:FILE, or that pin if the server's operator confirms it)";
}

std::shared_ptr<const client_credentials> client_credentials::load(std::string_view trust_text,
                                                                   const std::string& server_host, std::string& error) {
    auto judge = trust::parse(trust_text, server_host, error);
    if (!judge) return nullptr;
    std::shared_ptr<client_credentials> credentials(new client_credentials(std::move(*judge)));
    credentials->handle_ = new_credentials();
    if (!credentials->handle_) {
        error = "out of memory";
        return nullptr;
    }
    const trust& kept = credentials->trust_;
    for (const std::string& file : kept.authority_files()) {
        const int count =
            gnutls_certificate_set_x509_trust_file(credentials->handle_.get(), file.c_str(), GNUTLS_X509_FMT_PEM);
        if (count > 0) continue;
        error = "trust: no certificate in " + file + (count < 0 ? std::string(": ") + gnutls_strerror(count) : "");
        return nullptr;
    }
    if (kept.needs_authorities() && kept.authority_files().empty() &&
        gnutls_certificate_set_x509_system_trust(credentials->handle_.get()) <= 0) {
        error =
            "trust: this machine has no trusted authorities; name one with ca:FILE or the server with pin:SHA256HEX";
        return nullptr;
    }
    return credentials;
}

}  // namespace tndm
