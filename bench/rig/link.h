#ifndef TANDEM_BENCH_RIG_LINK_H
#define TANDEM_BENCH_RIG_LINK_H

#include <array>
#include <cstdint>
#include <string>

#include "bench/rig/pipe.h"
#include "bench/rig/tun.h"

namespace rig {

/** The time that every part of the rig counts in: CLOCK_MONOTONIC. */
nanoseconds clock_now();

/** Two TUN devices and a pipe for each direction between them. */
class link {
  public:
    enum side : size_t { near = 0, far = 1 };
    enum direction : size_t { up = 0, down = 1 }; /**< near to far, far to near. */

    link(slot_pool& pool, tun near_end, tun far_end);

    pipe& towards(direction which) { return pipes_[which]; }
    int fd(side which) const { return ends_[which].fd(); }

    /** Takes what this side's namespace has sent, up to a batch; false when there may be more. */
    bool collect(side from);
    /** Hands over everything that has arrived by `now`. */
    void deliver(nanoseconds now);

    /** The counters of both directions as a JSON object. Marks of the worst value (fullest queue, latest packet) begin
     * anew. */
    std::string statistics();

  private:
    struct lateness {
        uint64_t packets = 0; /**< More than a millisecond late. */
        nanoseconds most{0};
        uint64_t refused = 0; /**< The device was down. */
    };
    std::string statistics(direction which);

    slot_pool* pool_;
    std::array<tun, 2> ends_;
    std::array<pipe, 2> pipes_;
    std::array<lateness, 2> late_{};
};

}  // namespace rig

#endif /* TANDEM_BENCH_RIG_LINK_H */
