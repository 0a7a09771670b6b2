#include "app/json_line.h"

#include <cmath>
#include <cstdio>

namespace tandem::app {
namespace {

// How many bytes of `text` are one well-formed UTF-8 character; 0 when they are none.
size_t character_size(std::string_view text) {
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{0}; };
    const uint8_t lead = byte(0);
    const size_t size = lead < 0x80                   ? 1
                        : lead >= 0xc2 && lead < 0xe0 ? 2
                        : lead >= 0xe0 && lead < 0xf0 ? 3
                        : lead >= 0xf0 && lead < 0xf5 ? 4
                                                      : 0;
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    const bool overlong = (lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xf0 && byte(1) < 0x90);
    const bool surrogate = lead == 0xed && byte(1) >= 0xa0;
    const bool too_high = lead == 0xf4 && byte(1) >= 0x90;
    return overlong || surrogate || too_high ? 0 : size;
}

}  // namespace

void json_line_t::quote(std::string_view text) {
    out_ += '"';
    while (!text.empty()) {
        const size_t size = character_size(text);
        const char c = text.front();
        if (size == 0) {
            out_ += "\\ufffd";
        } else if (c == '"' || c == '\\') {
            out_ += '\\';
            out_ += c;
        } else if (static_cast<uint8_t>(c) < 0x20 || c == 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", unsigned{static_cast<uint8_t>(c)});
            out_ += escaped;
        } else {
            out_ += text.substr(0, size);
        }
        text.remove_prefix(size == 0 ? 1 : size);
    }
    out_ += '"';
}

void json_line_t::start(std::string_view key) {
    if (!first_) out_ += ',';
    first_ = false;
    if (key.empty()) return;
    quote(key);
    out_ += ':';
}

void json_line_t::open(char bracket) {
    out_ += bracket;
    first_ = true;
}

void json_line_t::close(char bracket) {
    out_ += bracket;
    first_ = false;
}

void json_line_t::add(std::string_view key, std::string_view text) {
    start(key);
    quote(text);
}

void json_line_t::add(std::string_view key, double value) {
    start(key);
    char text[64];
    const int size = snprintf(text, sizeof(text), "%.3f", std::isfinite(value) ? value : 0);
    std::string_view shown(text, static_cast<size_t>(size));
    while (shown.back() == '0')
        shown.remove_suffix(1);
    if (shown.back() == '.') shown.remove_suffix(1);
    out_ += shown == "-0" ? "0" : shown;
}

std::string json_line_t::take() {
    close('}');
    out_ += '\n';
    return std::move(out_);
}

}  // namespace tandem::app
