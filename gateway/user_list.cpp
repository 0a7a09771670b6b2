#include "gateway/user_list.h"

#include <sodium.h>

#include <algorithm>

namespace tandem {
namespace {

constexpr unsigned long long passes = 3;
constexpr size_t memory_bytes = size_t{16} << 20;
constexpr size_t longest_id = 64;

bool is_ready() {
    static const bool ready = sodium_init() >= 0;
    return ready;
}

bool is_hash(const std::string& text) {
    return is_ready() && text.size() < crypto_pwhash_STRBYTES &&
           crypto_pwhash_argon2id_str_needs_rehash(text.c_str(), passes, memory_bytes) >= 0;
}

// What a client is measured against that does not exist, so that it takes as long as one that does.
const std::string& nobodys_hash() {
    static const std::string hash = hash_secret(make_secret());
    return hash;
}

}  // namespace

std::string hash_secret(const std::string& secret) {
    char hash[crypto_pwhash_STRBYTES] = "";
    if (!is_ready() || crypto_pwhash_str_alg(hash, secret.data(), secret.size(), passes, memory_bytes,
                                             crypto_pwhash_ALG_ARGON2ID13) != 0) {
        return {};
    }
    return hash;
}

std::string make_secret() {
    if (!is_ready()) return {};
    unsigned char bytes[24];
    randombytes_buf(bytes, sizeof(bytes));
    char text[sodium_base64_ENCODED_LEN(sizeof(bytes), sodium_base64_VARIANT_URLSAFE_NO_PADDING)];
    return sodium_bin2base64(text, sizeof(text), bytes, sizeof(bytes), sodium_base64_VARIANT_URLSAFE_NO_PADDING);
}

std::string user_list_t::read(std::string_view text) {
    std::map<std::string, std::string> users;
    for (unsigned number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) {
            line.remove_suffix(1);
        }
        if (line.empty() || line.front() == '#') continue;
        const std::string place = "line " + std::to_string(number) + ": ";
        const size_t id_end = std::min(line.find_first_of(" \t"), line.size());
        const std::string id(line.substr(0, id_end));
        const size_t hash_begin = std::min(line.find_first_not_of(" \t", id_end), line.size());
        const std::string hash(line.substr(hash_begin));
        if (!is_id(id)) return place + "begins with no client's id; write ID HASH, as `tandem user add` does";
        if (!is_hash(hash)) return place + "the hash cannot be used; add that user again";
        if (!users.emplace(id, hash).second) return place + id + " is there already; remove one of the two lines";
    }
    users_ = std::move(users);
    return {};
}

std::string user_list_t::text() const {
    std::string text;
    for (const auto& [id, hash] : users_)
        text.append(id).append(" ").append(hash).append("\n");
    return text;
}

bool user_list_t::is_id(std::string_view id) {
    return !id.empty() && id.size() <= longest_id && std::all_of(id.begin(), id.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' ||
               c == '.' || c == '@';
    });
}

std::optional<admission_t> user_list_t::check(const presented_t& client) const {
    if (!is_ready()) return std::nullopt;
    const auto found = users_.find(client.id);
    const bool known = found != users_.end();
    const std::string& hash = known ? found->second : nobodys_hash();
    const bool right = !hash.empty() &&
                       crypto_pwhash_str_verify(hash.c_str(), client.credential.data(), client.credential.size()) == 0;
    if (!known || !right) return std::nullopt;
    return admission_t{client.id, hash};
}

bool user_list_t::still_holds(const admission_t& admission) const {
    const auto found = users_.find(admission.client);
    return found != users_.end() && found->second == admission.proof;
}

}  // namespace tandem
