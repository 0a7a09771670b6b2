// The option text of a tun/tap interface.
#include <cstring>
#include <utility>

#include "forward/advanced_connection_context.h"

namespace tandem {

namespace {

using options_map_t = std::multimap<std::string, std::string>;

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Reads `key: value;` entries a character at a time. In a value, quotes protect `;` and leading space and are not kept.
class option_scanner_t {
  public:
    explicit option_scanner_t(options_map_t& options) : options_(options) {}

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

    // A key without a value is dropped.
    void finish() {
        if (in_value_) end_entry();
    }

  private:
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

    options_map_t& options_;
    bool in_value_ = false;
    bool value_begun_ = false;
    char quote_ = 0;
    std::string key_;
    std::string value_;
};

}  // namespace

void advanced_connection_context_t::set_default_tuntap_device(const std::string& device) {
    std::lock_guard guard(table_lock);
    tuntap_device = device;
}

std::string advanced_connection_context_t::default_tuntap_device() {
    std::lock_guard guard(table_lock);
    return tuntap_device;
}

int advanced_connection_context_t::parse_if_options(const std::string& text, options_map_t& options) {
    options.clear();
    option_scanner_t scanner(options);
    for (const char c : text) {
        scanner.take(c);
    }
    scanner.finish();
    return static_cast<int>(options.size());
}

bool advanced_connection_context_t::set_if_options(const std::string& ifname, options_map_t&) {
    return !ifname.empty();
}

}  // namespace tandem
