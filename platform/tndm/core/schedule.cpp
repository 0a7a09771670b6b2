#include "platform/tndm/core/schedule.h"

#include <algorithm>

namespace tndm::core {

namespace {

// Whether a lane counts when another one asks what the others could do.
bool works(const lane& other, const lane_map& all) {
    return !other.suspect() && usable(other, all);
}

duration fastest_rtt(const lane& asking, const lane_map& all) {
    duration fastest = asking.rtt();
    for (const auto& [id, other] : all) {
        if (works(other, all)) {
            fastest = std::min(fastest, other.rtt());
        }
    }
    return fastest;
}

class sooner_first_schedule final : public schedule {
  public:
    // The faster lanes together drain the backlog at the sum of their rates. If that, and the way of the nearest, takes
    // longer than the way over this lane, then this lane's bytes arrive before they would otherwise: it helps. While it
    // is left alone the faster ones have work, so nothing is idle that matters.
    bool may_take_fresh(const lane& asking, const lane_map& all, uint64_t backlog) const override {
        double faster_rate = 0;
        duration nearest = asking.rtt();
        for (const auto& [id, other] : all) {
            if (id == asking.id() || !works(other, all) || other.rtt() >= asking.rtt()) {
                continue;
            }
            if (other.rate() == 0) {
                return true;  // nothing is known of it yet
            }
            faster_rate += static_cast<double>(other.rate());
            nearest = std::min(nearest, other.rtt());
        }
        if (faster_rate <= 0) {
            return true;
        }
        const std::chrono::duration<double> drain(static_cast<double>(backlog) / faster_rate);
        return drain * patience + nearest / 2 >= asking.rtt() / 2;
    }

    instant may_take_waiting_at(const lane& asking, const lane_map& all, instant since) const override {
        return since + (asking.rtt() - fastest_rtt(asking, all)) / 2;
    }

    // Worth it when the copy would arrive before the original can have, or when the original's acknowledgement is
    // overdue.
    bool may_copy(const lane& asking, const lane& owing, const transmission& sent, instant now) const override {
        const bool sooner = now + asking.rtt() / 2 + asking.rtt() / 8 < sent.sent_at + owing.rtt() / 2;
        const bool overdue = now > sent.sent_at + owing.rtt() + owing.variation() * 2;
        return asking.rtt() < owing.rtt() && (sooner || overdue);
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
    instant may_take_waiting_at(const lane&, const lane_map&, instant since) const override { return since; }
    bool may_copy(const lane&, const lane&, const transmission&, instant) const override { return true; }
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
        return !entry.second.backup() && !entry.second.suspect();
    });
}

}  // namespace tndm::core
