#ifndef TANDEM_APP_FAILURE_H
#define TANDEM_APP_FAILURE_H

#include <stdexcept>
#include <string>
#include <string_view>

namespace tandem::app {

inline constexpr int exit_ok = 0;
inline constexpr int exit_failed = 1;
inline constexpr int exit_usage = 2;

// Why the program ends: one line for the user, saying what is wrong and how to mend it, and the exit code.
class failure_t : public std::runtime_error {
  public:
    explicit failure_t(const std::string& line, int exit_code = exit_failed)
        : std::runtime_error(line), exit_code_(exit_code) {}

    int exit_code() const { return exit_code_; }

  private:
    int exit_code_;
};

// `text` with everything but printable ASCII replaced by '?', cut to `limit` characters: safe in one line on a
// terminal.
std::string printable(std::string_view text, size_t limit = 200);

// The failure of a command-line value: names the option, the value and the cure.
failure_t bad_value(std::string_view option, std::string_view value, std::string_view cure);

}  // namespace tandem::app

#endif  // TANDEM_APP_FAILURE_H
