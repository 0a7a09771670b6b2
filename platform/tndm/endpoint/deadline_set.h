// Many objects with one deadline each: which are due, and when is the next.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_DEADLINE_SET_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_DEADLINE_SET_H

#include <set>
#include <utility>
#include <vector>

#include "platform/tndm/core/time.h"

namespace tndm {

// T has a member `core::instant scheduled` that only this class touches, `never` at first. An object must be removed
// before it dies.
template <typename T>
class deadline_set {
  public:
    void set(T& object, core::instant deadline) {
        if (object.scheduled == deadline) {
            return;
        }
        remove(object);
        if (deadline != core::never) {
            entries_.emplace(deadline, &object);
            object.scheduled = deadline;
        }
    }
    void remove(T& object) {
        if (object.scheduled != core::never) {
            entries_.erase({object.scheduled, &object});
            object.scheduled = core::never;
        }
    }
    core::instant next() const { return entries_.empty() ? core::never : entries_.begin()->first; }
    // Takes out what is due.
    std::vector<T*> due(core::instant now) {
        std::vector<T*> found;
        while (!entries_.empty() && entries_.begin()->first <= now) {
            found.push_back(entries_.begin()->second);
            found.back()->scheduled = core::never;
            entries_.erase(entries_.begin());
        }
        return found;
    }

  private:
    std::set<std::pair<core::instant, T*>> entries_;
};

}  // namespace tndm

#endif
