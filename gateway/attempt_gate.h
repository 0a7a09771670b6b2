#ifndef TANDEM_GATEWAY_ATTEMPT_GATE_H
#define TANDEM_GATEWAY_ATTEMPT_GATE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "gateway/recent.h"

namespace tandem {

// Whose credentials may be looked at now. Only failures slow anybody down: an id at one source is looked at less and
// less often with each, and a source as a whole may fail `most_failures` times and once a second more, whatever ids it
// makes up. An id that was let in at this source before stands outside of what its neighbours spoil. Tables are bounded
// and forget who was quiet longest. Times are microseconds of a steady clock. One thread.
class attempt_gate_t {
  public:
    static constexpr size_t most_entries = 4096;  // of each table
    static constexpr unsigned most_at_once = 8;   // of a source
    static constexpr int64_t most_failures = 32;
    static constexpr int64_t first_gap_us = 250'000;
    static constexpr int64_t longest_gap_us = 4'000'000;

    // Whether the attempt is one of those that come first, to be ended with end_first; otherwise `begin` decides.
    bool begin_first(const std::string& source, const std::string& id, int64_t now_us);
    void end_first(const std::string& source, const std::string& id, bool failed, int64_t now_us);
    // Whether the attempt may be made now, to be ended with `end`.
    bool begin(const std::string& source, const std::string& id, int64_t now_us);
    void end(const std::string& source, const std::string& id, bool failed, int64_t now_us);
    // Instead of `end`: the attempt was not made after all.
    void give_back(const std::string& source);

  private:
    struct source_t {
        unsigned at_once = 0;
        int64_t spent_us = 0;  // when all failures are forgotten, and those that attempts under way may become
    };
    struct id_t {
        unsigned failures = 0;
        int64_t next_us = 0;  // not looked at before
    };
    struct proven_t {
        unsigned at_once = 0;
        int64_t next_us = 0;
    };

    static std::string key(const std::string& source, const std::string& id);

    recent_t<source_t> sources_{most_entries};
    recent_t<id_t> ids_{most_entries};         // those that have failed, by source and id
    recent_t<proven_t> proven_{most_entries};  // those that were let in, by source and id
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_ATTEMPT_GATE_H
