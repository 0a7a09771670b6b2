#include "app/failure.h"

namespace tandem::app {

std::string printable(std::string_view text, size_t limit) {
    std::string out(text.substr(0, limit));
    for (char& c : out) {
        if (c < 0x20 || c > 0x7e) c = '?';
    }
    if (text.size() > limit) out += "...";
    return out;
}

failure_t bad_value(std::string_view option, std::string_view value, std::string_view cure) {
    return failure_t(std::string(option) + " '" + printable(value) + "': " + std::string(cure), exit_usage);
}

}  // namespace tandem::app
