#include "platform/tndm/core/schedule.h"

#include <algorithm>

namespace tndm::core {

namespace {

// Whether a lane counts when another one asks what the others could do.
bool works(const lane& other, const lane_map& all) {
    return !other.suspect() && usable(other, all);
}

// What the lanes that deliver sooner than `asking` can do together.
struct faster_lanes {
    faster_lanes(const lane& asking, const lane_map& all) : nearest(asking.delivers_in()) {
        for (const auto& [id, other] : all) {
            if (id == asking.id() || !works(other, all) || other.delivers_in() >= asking.delivers_in()) {
                continue;
            }
            any = true;
            unknown = unknown || other.rate() == 0;
            rate += static_cast<double>(other.rate());
            nearest = std::min(nearest, other.delivers_in());
        }
    }
    // When the last of so many bytes will have arrived, if they carry all of them.
    std::chrono::duration<double> deliver_in(uint64_t bytes, double patience) const {
        return std::chrono::duration<double>(static_cast<double>(bytes) / rate) * patience + nearest;
    }

    bool any = false;
    bool unknown = false;  // one of them has not delivered anything yet
    double rate = 0;
    duration nearest;
};

class sooner_first_schedule final : public schedule {
  public:
    // The faster lanes together drain the backlog at the sum of their rates. If that, and the way of the nearest, takes
    // longer than the way over this lane, then this lane's bytes arrive before they would otherwise: it helps. While it
    // is left alone the faster ones have work, so nothing is idle that matters.
    bool may_take_fresh(const lane& asking, const lane_map& all, uint64_t backlog) const override {
        const faster_lanes faster(asking, all);
        return !faster.any || faster.unknown || faster.deliver_in(backlog, patience) >= asking.delivers_in();
    }

    // A faster lane may be much the slower one in bytes a second: what has to be sent again must not queue up for it.
    instant may_take_waiting_at(const lane& asking, const lane_map& all, instant since,
                                uint64_t waiting) const override {
        const faster_lanes faster(asking, all);
        const bool helps = waiting > 0 && faster.any && faster.deliver_in(waiting, 1) >= asking.delivers_in();
        return helps ? since : since + (asking.delivers_in() - faster.nearest);
    }

    // Worth it when the copy would arrive before the original can have, or when the original's acknowledgement is
    // overdue.
    instant may_copy_at(const lane& asking, const lane& owing, const transmission& sent, instant now) const override {
        if (asking.rtt() >= owing.rtt()) {
            return never;
        }
        const bool sooner = now + asking.rtt() / 2 + asking.rtt() / 8 < sent.sent_at + owing.rtt() / 2;
        return sooner ? now : sent.sent_at + owing.rtt() + owing.variation() * 2;
    }

    bool copies_first() const override { return false; }

  private:
    // A backlog that has not quite the size yet will be followed by more, most of the time; an idle path costs more
    // than a late chunk.
    static constexpr double patience = 1.5;
};

class redundant_schedule final : public schedule {
  public:
    bool may_take_fresh(const lane&, const lane_map&, uint64_t) const override { return true; }
    instant may_take_waiting_at(const lane&, const lane_map&, instant since, uint64_t) const override { return since; }
    instant may_copy_at(const lane&, const lane&, const transmission&, instant now) const override { return now; }
    bool copies_first() const override { return true; }
};

}  // namespace

const schedule& sooner_first() {
    static const sooner_first_schedule the_one;
    return the_one;
}

const schedule& redundant() {
    static const redundant_schedule the_one;
    return the_one;
}

bool usable(const lane& asking, const lane_map& all) {
    return !asking.backup() || std::none_of(all.begin(), all.end(), [](const auto& entry) {
        return !entry.second.backup() && !entry.second.suspect() && !entry.second.awaited();
    });
}

}  // namespace tndm::core
