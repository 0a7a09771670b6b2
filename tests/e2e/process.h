#ifndef TANDEM_TESTS_E2E_PROCESS_H
#define TANDEM_TESTS_E2E_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "app/file.h"
#include "tests/common/scratch.h"

namespace tandem::test {

inline constexpr std::chrono::seconds patience{60};  // how long an event may take before the test fails

// A child process. It dies with this object, and with the test program.
class process_t {
  public:
    // args[0] is looked up in PATH. Standard error goes to a passing file, so that the child never blocks on it.
    explicit process_t(const std::vector<std::string>& args);
    process_t(process_t&& other) noexcept;
    process_t(const process_t&) = delete;
    process_t& operator=(const process_t&) = delete;
    ~process_t();

    // The next line of standard output that begins with `prefix`; lines before it are skipped. Empty when none comes in
    // time or the output ends.
    std::string wait_line(const std::string& prefix, std::chrono::milliseconds limit = patience);
    // Waits until standard error holds `part`.
    bool wait_error(const std::string& part, std::chrono::milliseconds limit = patience) const;
    void signal(int number) const;
    // The exit code, -N for an end by signal N, or -1000 when it does not end in time.
    int wait(std::chrono::milliseconds limit = patience);
    // Ends it by SIGTERM, as it should: with code 0.
    void end();
    // Everything on standard output that wait_line has not taken, after the end.
    std::string rest_of_output();
    // What is on standard error so far.
    std::string errors() const;

  private:
    bool read_more(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    bool ended_ = false;
    int status_ = 0;
    app::file_t pidfd_;
    app::file_t output_;
    app::file_t errors_;
    std::string buffer_;
};

// Whether `condition` becomes true within `patience`: for what tells nobody when it changes.
bool comes_true(const std::function<bool()>& condition, std::chrono::milliseconds limit = patience);

// Runs a program to its end; fails the test when that is not its exit code.
std::string run(const std::vector<std::string>& args, int expected_code = 0);

std::string read_file(const std::string& path);
size_t count_lines(const std::string& text);

}  // namespace tandem::test

#endif  // TANDEM_TESTS_E2E_PROCESS_H
