// A set of byte offsets kept as disjoint, non-touching half-open ranges in ascending order.
#ifndef TANDEM_PLATFORM_TNDM_CORE_RANGE_SET_H
#define TANDEM_PLATFORM_TNDM_CORE_RANGE_SET_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace tndm::core {

struct range {
    uint64_t begin = 0;
    uint64_t end = 0;  // one past the last offset

    bool empty() const { return begin >= end; }
    uint64_t size() const { return empty() ? 0 : end - begin; }
    bool operator==(const range&) const = default;
};

class range_set {
  public:
    // Adds a range, joining what it touches.
    void add(range added);
    void subtract(range removed);
    // Forgets everything below `offset`.
    void drop_below(uint64_t offset);

    bool empty() const { return ranges_.empty(); }
    size_t count() const { return ranges_.size(); }
    // The bytes of the first `most` ranges.
    uint64_t bytes(size_t most) const;
    bool contains(uint64_t offset) const;
    // The part of `whole` that the set does not hold, in ascending order.
    std::vector<range> missing_from(range whole) const;
    // One past the last offset of the run that starts at or covers `offset`; `offset` itself when it is not in the set.
    uint64_t end_of_run(uint64_t offset) const;
    range front() const { return {ranges_.begin()->first, ranges_.begin()->second}; }

  private:
    std::map<uint64_t, uint64_t> ranges_;  // begin -> end
};

}  // namespace tndm::core

#endif
