#ifndef TANDEM_GATEWAY_USER_LIST_H
#define TANDEM_GATEWAY_USER_LIST_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/credentials.h"

namespace tandem {

// A secret as it is kept: Argon2id with its salt and costs, as one word of text. 16 MiB and three passes: dear to
// whoever guesses, and still affordable for a router. Empty when memory does not suffice.
std::string hash_secret(const std::string& secret);
// A fresh secret of 192 bits as text.
std::string make_secret();

// Clients and the hashes of their secrets. As text: one line a client, "ID HASH"; empty lines and those that begin with
// '#' say nothing.
class user_list_t : public credentials_t {
  public:
    // Empty, or what is wrong, with the line's number; the list is as it was then.
    std::string read(std::string_view text);
    std::string text() const;

    // 1 to 64 letters, digits and "-_.@".
    static bool is_id(std::string_view id);
    const std::map<std::string, std::string>& users() const { return users_; }
    void set(const std::string& id, const std::string& hash) { users_[id] = hash; }
    bool remove(const std::string& id) { return users_.erase(id) != 0; }

    std::optional<admission_t> check(const presented_t& client) const override;
    bool still_holds(const admission_t& admission) const override;

  private:
    std::map<std::string, std::string> users_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_USER_LIST_H
