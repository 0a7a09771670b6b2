#ifndef TANDEM_GATEWAY_CREDENTIALS_H
#define TANDEM_GATEWAY_CREDENTIALS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tandem {

// What a client says of itself in the handshake. None of it is to be believed before it has been checked, nor printed
// as it is.
struct presented_t {
    std::string id;
    std::string credential;
    std::string software;
    std::string machine;
};

// Whom a client has turned out to be: its id, and what it was let in for (of no meaning to others).
struct admission_t {
    std::string client;
    std::string proof;
};

// Whose credentials are good. Never changes, so that any thread may ask; a check may take long.
class credentials_t {
  public:
    virtual ~credentials_t() = default;

    // Nothing for a stranger. A client that does not exist takes as long as one with a wrong secret.
    virtual std::optional<admission_t> check(const presented_t& client) const = 0;
    // Whether a client that other credentials have let in would be let in by these. Quick.
    virtual bool still_holds(const admission_t& admission) const = 0;
};

// Lets in whoever presents the one shared secret, under the same id: what a client calls itself is not proved by it.
// Holds only the secret's hash; what is presented is compared by hash and in constant time, so that neither the length
// nor a common beginning shows in the time that the answer takes.
class shared_secret_t : public credentials_t {
  public:
    static constexpr const char* client_id = "default";

    explicit shared_secret_t(const std::string& secret);

    std::optional<admission_t> check(const presented_t& client) const override;
    bool still_holds(const admission_t&) const override { return true; }

  private:
    using hash_t = std::array<uint8_t, 32>;

    static bool hash(const std::string& text, hash_t& out);

    hash_t expected_{};
    bool usable_;  // false when the secret could not be hashed: nobody is let in then
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_CREDENTIALS_H
