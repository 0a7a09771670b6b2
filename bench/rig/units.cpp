#include "bench/rig/units.h"

#include <charconv>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <utility>

namespace rig {

namespace {

using scale = std::pair<std::string_view, double>;

[[noreturn]] void refuse(std::string_view what, std::string_view text) {
    throw std::invalid_argument("not " + std::string(what) + ": '" + std::string(text) + "'");
}

/* A number that is not negative, with one of the units behind it. */
double scaled(std::string_view what, std::string_view text, std::initializer_list<scale> units, double largest) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error == std::errc()) {
        const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
        for (const auto& [name, factor] : units) {
            if (unit == name && number >= 0 && number * factor <= largest) return number * factor;
        }
    }
    refuse(what, text);
}

}  // namespace

uint64_t parse_rate(std::string_view text) {
    if (text == "none") return 0;
    const double bits = scaled("a rate", text, {{"", 1}, {"k", 1e3}, {"M", 1e6}, {"G", 1e9}}, 1e12);
    if (bits < 1) refuse("a rate", text);
    return static_cast<uint64_t>(bits);
}

nanoseconds parse_time(std::string_view text) {
    return nanoseconds(static_cast<int64_t>(scaled("a time", text, {{"us", 1e3}, {"ms", 1e6}, {"s", 1e9}}, 3600e9)));
}

uint64_t parse_bytes(std::string_view text) {
    return static_cast<uint64_t>(scaled("a number of bytes", text, {{"", 1}, {"k", 1e3}, {"M", 1e6}}, 1e9));
}

double parse_share(std::string_view text) {
    const double share = scaled("a part of one", text, {{"", 1}, {"%", 0.01}}, 1);
    return share;
}

uint64_t parse_count(std::string_view text) {
    uint64_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size()) refuse("a whole number", text);
    return count;
}

}  // namespace rig
