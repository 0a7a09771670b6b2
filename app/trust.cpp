#include "app/trust.h"

#include <algorithm>

namespace tandem::app {
namespace {

constexpr size_t longest_text = 127;  // the transport's field, less its terminator
constexpr size_t pin_digits = 64;

bool is_hex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

std::string pair_fault(std::string_view pair) {
    const size_t colon = pair.find(':');
    const std::string_view key = pair.substr(0, colon);
    const std::string_view value = colon == std::string_view::npos ? std::string_view() : pair.substr(colon + 1);
    if (key == "pin") {
        const bool right = value.size() == pin_digits && std::all_of(value.begin(), value.end(), is_hex);
        return right ? "" : "a pin is 64 hexadecimal digits, as `tandem cert` printed them";
    }
    if (key == "insecure")
        return value == "yes" ? "" : "write insecure:yes, or leave it out to have the certificate checked";
    if (key == "ca" || key == "name") return value.empty() ? "ca: and name: need a value" : "";
    return "give pin:HEX, ca:FILE, name:TEXT or insecure:yes, parted by ';'";
}

std::string_view take_pair(std::string_view& text) {
    const size_t end = std::min(text.find(';'), text.size());
    const std::string_view pair = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return pair;
}

}  // namespace

std::string trust_fault(std::string_view text) {
    if (text.size() > longest_text) return "at most 127 bytes fit; use a shorter file name";
    if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' '; }))
        return "remove the control characters";
    while (!text.empty()) {
        const std::string_view pair = take_pair(text);
        if (pair.empty()) continue;
        if (std::string fault = pair_fault(pair); !fault.empty()) return fault;
    }
    return "";
}

std::string trust_authority_file(std::string_view text) {
    constexpr std::string_view key = "ca:";
    while (!text.empty()) {
        const std::string_view pair = take_pair(text);
        if (pair.substr(0, key.size()) == key) return std::string(pair.substr(key.size()));
    }
    return "";
}

}  // namespace tandem::app
