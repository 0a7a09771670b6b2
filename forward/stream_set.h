#ifndef TANDEM_FORWARD_STREAM_SET_H
#define TANDEM_FORWARD_STREAM_SET_H

#include <cstdint>
#include <map>

namespace tandem {

// A set of stream ids that only grows: a bit each, so that what a long-lived connection has used stays small (ids run
// upwards in small steps).
class stream_set_t {
  public:
    void insert(uint64_t id) { words_[id / 64] |= uint64_t{1} << (id % 64); }
    bool contains(uint64_t id) const {
        const auto word = words_.find(id / 64);
        return word != words_.end() && (word->second >> (id % 64) & 1) != 0;
    }
    void clear() { words_.clear(); }

  private:
    std::map<uint64_t, uint64_t> words_;
};

}  // namespace tandem

#endif  // TANDEM_FORWARD_STREAM_SET_H
