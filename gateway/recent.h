#ifndef TANDEM_GATEWAY_RECENT_H
#define TANDEM_GATEWAY_RECENT_H

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <utility>

namespace tandem {

// Values by name, so many at most: the one that was not asked for longest goes when another is made. One thread.
template <typename value_t>
class recent_t {
  public:
    explicit recent_t(size_t most) : most_(most) {}

    // Null when there is none. Valid until the next is made.
    value_t* find(const std::string& name) {
        const auto found = places_.find(name);
        if (found == places_.end()) return nullptr;
        by_age_.splice(by_age_.begin(), by_age_, found->second);
        return &found->second->second;
    }
    // Makes what is not there.
    value_t& get(const std::string& name) {
        if (value_t* const known = find(name)) return *known;
        by_age_.emplace_front(name, value_t{});
        places_[name] = by_age_.begin();
        if (by_age_.size() > most_) {
            places_.erase(by_age_.back().first);
            by_age_.pop_back();
        }
        return by_age_.front().second;
    }

  private:
    using entry_t = std::pair<std::string, value_t>;

    const size_t most_;
    std::list<entry_t> by_age_;  // the most recent first
    std::map<std::string, typename std::list<entry_t>::iterator> places_;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_RECENT_H
