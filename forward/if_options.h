#ifndef TANDEM_FORWARD_IF_OPTIONS_H
#define TANDEM_FORWARD_IF_OPTIONS_H

#include <map>
#include <string>
#include <string_view>

namespace tandem {

using if_options_t = std::multimap<std::string, std::string>;

// Reads `key: value; key: 'quoted;value'; ...` a character at a time. In a value, quotes protect `;` and leading space
// and are not kept. Anything is accepted; a key without a value is dropped.
class if_option_scanner_t {
  public:
    explicit if_option_scanner_t(if_options_t& options) : options_(options) {}

    void take(char c) {
        if (quote_) {
            take_quoted(c);
        } else if (in_value_) {
            take_value(c);
        } else if (c == ':') {
            in_value_ = true;
        } else if (!is_space(c)) {
            key_ += c;
        }
    }

    void finish() {
        if (in_value_) end_entry();
    }
    // What the text lacks so far.
    bool open_quote() const { return quote_ != 0; }
    bool open_key() const { return !key_.empty(); }

  private:
    static bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

    void take_quoted(char c) {
        if (c == quote_) {
            quote_ = 0;
        } else {
            value_ += c;
        }
    }

    void take_value(char c) {
        if (c == ';') return end_entry();
        if (!value_begun_ && is_space(c)) return;
        value_begun_ = true;
        if (c == '\'' || c == '"') {
            quote_ = c;
        } else {
            value_ += c;
        }
    }

    void end_entry() {
        if (!key_.empty()) options_.emplace(key_, value_);
        key_.clear();
        value_.clear();
        in_value_ = value_begun_ = false;
    }

    if_options_t& options_;
    bool in_value_ = false;
    bool value_begun_ = false;
    char quote_ = 0;
    std::string key_;
    std::string value_;
};

// The entries of a whole text. False when something is left over: a key without a value, or an open quote.
inline bool scan_if_options(std::string_view text, if_options_t& options) {
    options.clear();
    if_option_scanner_t scanner(options);
    for (const char c : text) {
        scanner.take(c);
    }
    const bool open_quote = scanner.open_quote();
    scanner.finish();
    return !open_quote && !scanner.open_key();
}

}  // namespace tandem

#endif  // TANDEM_FORWARD_IF_OPTIONS_H
