// Which lane carries what. A lane that has room asks; the schedule says whether it is the right one.
//
// The literature behind it. Filling the nearest path first (the usual MPTCP scheduler) lets a slow path hold the end of
// a transfer, and every block that the receiver waits for. ECF (Lim et al., CoNEXT 2017) leaves the slow path alone
// when the fast one would have finished earlier; BLEST (Ferlin et al., IFIP Networking 2016) when the slow path's bytes
// would block the send window. Opportunistic retransmission (Raiciu et al., NSDI 2012) sends again, on a path with
// room, what a slower one still owes and the window waits for.
//
// Implementations hold no state; what they are asked with is all they know.
#ifndef TANDEM_PLATFORM_TNDM_CORE_SCHEDULE_H
#define TANDEM_PLATFORM_TNDM_CORE_SCHEDULE_H

#include <cstdint>
#include <map>

#include "platform/tndm/core/lane.h"
#include "platform/tndm/core/time.h"

namespace tndm::core {

using lane_map = std::map<lane_id, lane>;

class schedule {
  public:
    virtual ~schedule() = default;

    // Whether `asking` may take bytes that were never sent, `backlog` of which wait.
    virtual bool may_take_fresh(const lane& asking, const lane_map& all, uint64_t backlog) const = 0;
    // From when on `asking` may take some of `waiting` bytes that have waited since `since`; faster lanes are preferred
    // until then.
    virtual instant may_take_waiting_at(const lane& asking, const lane_map& all, instant since,
                                        uint64_t waiting) const = 0;
    // From when on `asking`, which has nothing else to do, should carry another copy of what `owing` sent and has not
    // heard of; never when it should not.
    virtual instant may_copy_at(const lane& asking, const lane& owing, const transmission& sent, instant now) const = 0;
    // Copies go before bytes that were never sent.
    virtual bool copies_first() const = 0;
};

// Every lane carries what it will deliver sooner than the faster ones could; what a slower lane still owes is copied by
// one that would be sooner.
const schedule& sooner_first();
// Every chunk on every lane: the lowest latency that the paths together can give.
const schedule& redundant();

// A backup lane carries something only when no other works.
bool usable(const lane& asking, const lane_map& all);

}  // namespace tndm::core

#endif
