#ifndef TANDEM_GATEWAY_AUTHORIZER_H
#define TANDEM_GATEWAY_AUTHORIZER_H

#include <array>
#include <cstdint>
#include <string>

namespace tandem {

// What a client says of itself in the handshake. None of it is to be believed before it has been checked, nor printed
// as it is.
struct presented_t {
    const std::string& id;
    const std::string& credential;
    const std::string& software;
    const std::string& machine;
};

// Decides who may use a gateway. One authorizer serves all connections of a link; it is called on the link's loop
// thread and must not block.
class authorizer_t {
  public:
    virtual ~authorizer_t() = default;

    // 0 lets the client in. Anything else refuses it, and `reason` is what the client is told.
    virtual int authorize(const presented_t& client, std::string& reason) = 0;
};

// Lets in whoever presents the one shared secret. Holds only its hash; what is presented is compared by hash and in
// constant time, so that neither the length nor a common beginning shows in the time that the answer takes.
class secret_authorizer_t : public authorizer_t {
  public:
    static constexpr int wrong_secret = 1;

    explicit secret_authorizer_t(const std::string& secret);

    int authorize(const presented_t& client, std::string& reason) override;

  private:
    using hash_t = std::array<uint8_t, 32>;

    static bool hash(const std::string& text, hash_t& out);

    hash_t expected_{};
    bool usable_;  // false when the secret could not be hashed: nobody is let in then
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_AUTHORIZER_H
