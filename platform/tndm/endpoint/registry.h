// Handles are numbers, not addresses: one that is out of date finds nothing, and never somebody else's object.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_REGISTRY_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_REGISTRY_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace tndm {

// Any thread. The mutex is held for look-ups only; nothing is destroyed under it.
template <typename T>
class registry {
  public:
    static registry& of_process() {
        static registry* const the_one = new registry;  // never destroyed: threads may outlive main
        return *the_one;
    }
    void* add(std::shared_ptr<T> object) {
        const std::lock_guard lock(mutex_);
        uintptr_t number = 0;
        do {
            // Odd, so that no handle of ours looks like an aligned address; on a 32-bit machine numbers return after
            // two thousand million.
            number = next_ += 2;
        } while (number == 1 || objects_.count(number) != 0);
        objects_.emplace(number, std::move(object));
        return reinterpret_cast<void*>(number);
    }
    std::shared_ptr<T> find(void* handle) const {
        const std::lock_guard lock(mutex_);
        const auto found = objects_.find(reinterpret_cast<uintptr_t>(handle));
        return found == objects_.end() ? nullptr : found->second;
    }
    void remove(void* handle) {
        std::shared_ptr<T> last;
        const std::lock_guard lock(mutex_);
        const auto found = objects_.find(reinterpret_cast<uintptr_t>(handle));
        if (found != objects_.end()) {
            last = std::move(found->second);  // dies after the lock: declared before it
            objects_.erase(found);
        }
    }
    size_t size() const {
        const std::lock_guard lock(mutex_);
        return objects_.size();
    }

  private:
    registry() = default;

    mutable std::mutex mutex_;
    uintptr_t next_ = 1;
    std::unordered_map<uintptr_t, std::shared_ptr<T>> objects_;
};

}  // namespace tndm

#endif
