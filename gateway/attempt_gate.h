#ifndef TANDEM_GATEWAY_ATTEMPT_GATE_H
#define TANDEM_GATEWAY_ATTEMPT_GATE_H

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>

namespace tandem {

// Slows down whoever presents wrong credentials, by where it comes from: after each failure the attempts from there are
// let through further apart, up to `longest_gap_us`. Failures are forgotten at the rate of one a minute. The table is
// bounded; when it is full, the source that was quiet longest is forgotten. Times are microseconds of a steady clock.
// One thread.
class attempt_gate_t {
  public:
    static constexpr size_t most_sources = 4096;
    static constexpr unsigned most_at_once = 4;
    static constexpr int64_t first_gap_us = 250'000;
    static constexpr int64_t longest_gap_us = 4'000'000;
    // An attempt that would have to wait longer is turned away.
    static constexpr int64_t longest_wait_us = 5'000'000;

    // How long the attempt has to wait before its credentials are looked at; nothing when it is turned away. An attempt
    // that is let in is to be ended with `end`.
    std::optional<int64_t> begin(const std::string& source, int64_t now_us);
    void end(const std::string& source, bool failed, int64_t now_us);

  private:
    struct source_t {
        std::list<std::string>::iterator age;
        unsigned failures = 0;
        unsigned at_once = 0;
        int64_t next_us = 0;      // no attempt is looked at before
        int64_t forgiven_us = 0;  // until when failures have been forgotten
    };

    source_t& find(const std::string& source, int64_t now_us);
    static int64_t gap(unsigned failures);

    std::map<std::string, source_t> sources_;
    std::list<std::string> by_age_;  // the most recent first
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_ATTEMPT_GATE_H
