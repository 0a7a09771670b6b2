#include "gateway/attempt_gate.h"

#include <algorithm>

namespace tandem {
namespace {

constexpr int64_t forgive_every_us = 1'000'000;
// An id's failures are forgotten when it was quiet for so long.
constexpr int64_t quiet_us = 600'000'000;
constexpr unsigned proven_at_once = 4;
// What of an id tells it from others here; it may be as long as a stranger likes.
constexpr size_t longest_id = 64;

}  // namespace

bool attempt_gate_t::begin_first(const std::string& source, const std::string& id, int64_t now_us) {
    proven_t* const proven = proven_.find(key(source, id));
    if (proven == nullptr || proven->at_once >= proven_at_once || now_us < proven->next_us) return false;
    ++proven->at_once;
    return true;
}

void attempt_gate_t::end_first(const std::string& source, const std::string& id, bool failed, int64_t now_us) {
    proven_t* const proven = proven_.find(key(source, id));
    if (proven == nullptr) return;
    if (proven->at_once > 0) --proven->at_once;
    if (failed) proven->next_us = now_us + longest_gap_us;
}

bool attempt_gate_t::begin(const std::string& source, const std::string& id, int64_t now_us) {
    const id_t* const known = ids_.find(key(source, id));
    if (known != nullptr && now_us < known->next_us) return false;
    source_t& from = sources_.get(source);
    const int64_t spent = std::max(from.spent_us, now_us) + forgive_every_us;
    if (from.at_once >= most_at_once || spent > now_us + most_failures * forgive_every_us) return false;
    // Counts as a failure until it is known to be none.
    from.spent_us = spent;
    ++from.at_once;
    return true;
}

void attempt_gate_t::end(const std::string& source, const std::string& id, bool failed, int64_t now_us) {
    if (!failed) {
        give_back(source);
        proven_.get(key(source, id));
        return;
    }
    source_t& from = sources_.get(source);
    if (from.at_once > 0) --from.at_once;
    id_t& entry = ids_.get(key(source, id));
    if (now_us > entry.next_us + quiet_us) entry.failures = 0;
    const int64_t gap = std::min(first_gap_us << std::min(entry.failures, 16u), longest_gap_us);
    ++entry.failures;
    entry.next_us = std::max(entry.next_us, now_us + gap);
}

void attempt_gate_t::give_back(const std::string& source) {
    source_t& from = sources_.get(source);
    if (from.at_once == 0) return;  // forgotten meanwhile
    --from.at_once;
    from.spent_us -= forgive_every_us;
}

std::string attempt_gate_t::key(const std::string& source, const std::string& id) {
    return source + '/' + id.substr(0, longest_id);
}

}  // namespace tandem
