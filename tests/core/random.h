// Seeded randomness: the same seed gives the same run on every machine (no standard distribution promises that).
#ifndef TANDEM_TESTS_CORE_RANDOM_H
#define TANDEM_TESTS_CORE_RANDOM_H

#include <cstdint>

namespace tndm::sim {

// splitmix64.
class dice {
  public:
    explicit dice(uint64_t seed) : state_(seed) {}

    uint64_t roll() {
        uint64_t z = state_ += 0x9e3779b97f4a7c15;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    // 0 .. end - 1; `end` must not be 0.
    uint64_t below(uint64_t end) { return roll() % end; }
    uint64_t between(uint64_t first, uint64_t last) { return first + below(last - first + 1); }
    bool chance(double probability) { return static_cast<double>(roll() >> 11) * 0x1p-53 < probability; }

  private:
    uint64_t state_;
};

}  // namespace tndm::sim

#endif
