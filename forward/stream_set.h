#ifndef TANDEM_FORWARD_STREAM_SET_H
#define TANDEM_FORWARD_STREAM_SET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>

namespace tandem {

// A set of stream ids that only grows, in bounded memory. The lowest two bits of an id are its kind, and the ids of a
// kind are handed out in turn, so runs of them are all that there is to keep; who opens streams out of turn leaves
// gaps. Beyond `most_runs` runs of a kind the lowest gap is closed: its ids count as used although they were not. That
// is the safe side, for a used stream carries nothing; and it happens only to a peer that has left thousands of streams
// unopened behind those that it has opened.
class stream_set_t {
  public:
    static constexpr size_t most_runs = 4096;

    void insert(uint64_t id) {
        if (contains(id)) return;
        runs_t& runs = kinds_[id % kinds];
        const uint64_t number = id / kinds;
        auto run = runs.emplace(number, number).first;
        const auto next = std::next(run);
        if (next != runs.end() && next->first == number + 1) {
            run->second = next->second;
            runs.erase(next);
        }
        if (run != runs.begin() && std::prev(run)->second + 1 == number) {
            std::prev(run)->second = run->second;
            runs.erase(run);
        }
        if (runs.size() <= most_runs) return;
        const auto second = std::next(runs.begin());
        runs.begin()->second = second->second;
        runs.erase(second);
    }
    bool contains(uint64_t id) const {
        const runs_t& runs = kinds_[id % kinds];
        const auto after = runs.upper_bound(id / kinds);
        return after != runs.begin() && std::prev(after)->second >= id / kinds;
    }
    void clear() { kinds_ = {}; }

  private:
    static constexpr uint64_t kinds = 4;
    using runs_t = std::map<uint64_t, uint64_t>;  // first -> last, which may be the same

    std::array<runs_t, kinds> kinds_;
};

}  // namespace tandem

#endif  // TANDEM_FORWARD_STREAM_SET_H
