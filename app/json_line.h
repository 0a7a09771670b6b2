#ifndef TANDEM_APP_JSON_LINE_H
#define TANDEM_APP_JSON_LINE_H

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace tandem::app {

// Writes one JSON object on one line. Any bytes may be given as text: what JSON must not hold is escaped, and what is
// not UTF-8 becomes U+FFFD.
class json_line_t {
  public:
    json_line_t() { open('{'); }

    // Without a key: the next value of an array.
    void begin_object(std::string_view key = {}) { start(key), open('{'); }
    void end_object() { close('}'); }
    void begin_array(std::string_view key) { start(key), open('['); }
    void end_array() { close(']'); }
    void add(std::string_view key, std::string_view text);
    void add(std::string_view key, const char* text) { add(key, std::string_view(text)); }
    void add(std::string_view key, std::same_as<bool> auto value) { start(key), out_ += value ? "true" : "false"; }
    void add(std::string_view key, std::integral auto value) { start(key), out_ += std::to_string(value); }
    // With at most three decimals.
    void add(std::string_view key, double value);
    // The line, its end included; nothing may be added any more.
    std::string take();

  private:
    void start(std::string_view key);
    void open(char bracket);
    void close(char bracket);
    void quote(std::string_view text);

    std::string out_;
    bool first_ = true;  // in the object or array that is open
};

}  // namespace tandem::app

#endif  // TANDEM_APP_JSON_LINE_H
