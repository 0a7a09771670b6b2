// The set of ranges against a model too simple to be wrong.
#include <gtest/gtest.h>

#include <vector>

#include "platform/tndm/core/range_set.h"
#include "tests/core/random.h"

namespace tndm::core {
namespace {

using sim::dice;

constexpr uint64_t seeds = 40;

range random_range(dice& d, uint64_t end, uint64_t longest) {
    const uint64_t begin = d.below(end);
    return {begin, begin + d.below(longest + 1)};
}

TEST(range_set, does_what_a_set_of_single_offsets_does) {
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        dice d(seed);
        range_set ranges;
        std::vector<bool> model(260);
        const auto fill = [&](uint64_t begin, uint64_t end, bool value) {
            std::fill(model.begin() + static_cast<ptrdiff_t>(begin), model.begin() + static_cast<ptrdiff_t>(end),
                      value);
        };
        for (int step = 0; step < 500; ++step) {
            const range r = random_range(d, 200, d.chance(0.1) ? 60 : 8);
            const uint64_t what = d.below(20);
            if (what < 11) {
                ranges.add(r);
                fill(r.begin, r.end, true);
            } else if (what < 19) {
                ranges.subtract(r);
                fill(r.begin, r.end, false);
            } else {
                ranges.drop_below(r.begin / 4);
                fill(0, r.begin / 4, false);
            }
            std::vector<range> runs;
            for (uint64_t i = 0; i < model.size(); ++i) {
                ASSERT_EQ(ranges.contains(i), model[i]) << i;
                if (model[i] && (i == 0 || !model[i - 1])) {
                    runs.push_back({i, ranges.end_of_run(i)});
                    ASSERT_EQ(std::find(model.begin() + static_cast<ptrdiff_t>(i), model.end(), false) - model.begin(),
                              static_cast<ptrdiff_t>(runs.back().end));
                }
            }
            ASSERT_EQ(ranges.count(), runs.size());
            ASSERT_TRUE(runs.empty() ? ranges.empty() : ranges.front() == runs.front());
            const range whole = random_range(d, 200, 60);
            std::vector<bool> missing(260);
            for (const range& m : ranges.missing_from(whole)) {
                ASSERT_FALSE(m.empty());
                for (uint64_t i = m.begin; i < m.end; ++i) {
                    missing[i] = true;
                }
            }
            for (uint64_t i = 0; i < model.size(); ++i) {
                ASSERT_EQ(missing[i], i >= whole.begin && i < whole.end && !model[i]) << i;
            }
        }
    }
}

}  // namespace
}  // namespace tndm::core
