/* What each side shows and whom the client believes. */
#ifndef TANDEM_PLATFORM_TNDM_QUIC_CREDENTIALS_H
#define TANDEM_PLATFORM_TNDM_QUIC_CREDENTIALS_H

#include <gnutls/gnutls.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tndm/quic/secret.h"

namespace tndm {

struct certificate_credentials_deleter {
    void operator()(gnutls_certificate_credentials_t credentials) const {
        gnutls_certificate_free_credentials(credentials);
    }
};
using certificate_credentials_ptr =
    std::unique_ptr<std::remove_pointer_t<gnutls_certificate_credentials_t>, certificate_credentials_deleter>;

/* A server's certificate chain and private key, with the two keys that follow from the private key: the same after a
 * restart and on every machine that serves with it. Immutable, so any thread may use it. */
class server_credentials {
  public:
    /* Reads PEM files: `cert_file` holds the chain, leaf first; `key_file` its private key without a password. Null and
     * one line in `error`, with the file and what is wrong with it, on failure. Blocks on the file system. */
    static std::shared_ptr<const server_credentials> load(const std::string& cert_file, const std::string& key_file,
                                                          std::string& error);

    server_credentials(const server_credentials&) = delete;
    server_credentials& operator=(const server_credentials&) = delete;

    gnutls_certificate_credentials_t handle() const { return handle_.get(); }
    /* For stateless reset tokens. */
    const secret<32>& reset_key() const { return reset_key_; }
    /* For address validation (Retry) tokens. */
    const secret<32>& token_key() const { return token_key_; }
    /* SHA-256 of the leaf certificate's public key, 64 lower-case hexadecimal digits: what a client pins. */
    const std::string& pin() const { return pin_; }

  private:
    server_credentials() = default;

    certificate_credentials_ptr handle_;
    secret<32> reset_key_;
    secret<32> token_key_;
    std::string pin_;
};

/* How a client judges the server's certificate. */
class trust {
  public:
    /* `text` is empty (the machine's authorities, `server_host` as the name) or `key:value` pairs parted by ';', with
     * spaces around anything ignored: ca:FILE        authorities (PEM) that replace the machine's; may be given more
     * than once name:TEXT      the name that the certificate must carry, instead of `server_host` pin:SHA256HEX  the
     * certificate's public key; any one of several. Alone it replaces authorities and names (a `name` given beside it
     * is still checked); beside `ca` both must hold insecure:yes   anybody; not together with `ca` or `pin` Null and
     * one line in `error` when the text does not say that or a file is missing. */
    static std::optional<trust> parse(std::string_view text, const std::string& server_host, std::string& error);

    /* For a session whose handshake has got the peer's certificate: nothing when it is acceptable, else one line that
     * says why, what was shown and how to mend it. */
    std::optional<std::string> verify(gnutls_session_t session) const;

    /* The name to check and to announce (SNI). */
    const std::string& name() const { return name_; }
    const std::vector<std::string>& authority_files() const { return authority_files_; }
    bool insecure() const { return insecure_; }
    /* Whether the chain must lead to an authority. */
    bool needs_authorities() const { return !insecure_ && (pins_.empty() || !authority_files_.empty()); }

  private:
    bool take(std::string_view key, std::string_view value, std::string& error);
    std::optional<std::string> verify_pin(gnutls_session_t session) const;
    std::optional<std::string> verify_chain(gnutls_session_t session) const;

    std::string name_;
    bool name_given_ = false;
    bool insecure_ = false;
    std::vector<std::string> authority_files_;
    std::vector<digest_t> pins_;
};

/* A client's trust with the authorities loaded. Immutable, so any thread may use it. */
class client_credentials {
  public:
    /* Null and one line in `error` when the text is wrong or authorities cannot be loaded. Blocks on the file system.
     */
    static std::shared_ptr<const client_credentials> load(std::string_view trust_text, const std::string& server_host,
                                                          std::string& error);

    client_credentials(const client_credentials&) = delete;
    client_credentials& operator=(const client_credentials&) = delete;

    gnutls_certificate_credentials_t handle() const { return handle_.get(); }
    const trust& judge() const { return trust_; }

  private:
    explicit client_credentials(trust t) : trust_(std::move(t)) {}

    certificate_credentials_ptr handle_;
    trust trust_;
};

}  // namespace tndm

#endif
