// The set of ranges against a model too simple to be wrong, and headers against what was put into them.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "platform/tndm/core/range_set.h"
#include "platform/tndm/core/wire.h"
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
        for (int step = 0; step < 500; ++step) {
            const range r = random_range(d, 200, d.chance(0.1) ? 60 : 8);
            const uint64_t what = d.below(20);
            if (what < 11) {
                ranges.add(r);
                std::fill(model.begin() + static_cast<ptrdiff_t>(r.begin),
                          model.begin() + static_cast<ptrdiff_t>(r.end), true);
            } else if (what < 19) {
                ranges.subtract(r);
                std::fill(model.begin() + static_cast<ptrdiff_t>(r.begin),
                          model.begin() + static_cast<ptrdiff_t>(r.end), false);
            } else {
                ranges.drop_below(r.begin / 4);
                std::fill(model.begin(), model.begin() + static_cast<ptrdiff_t>(r.begin / 4), false);
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

TEST(wire, every_header_reads_back_as_it_was_written) {
    dice d(5);
    for (int i = 0; i < 20'000; ++i) {
        const auto number = [&d] { return d.roll() >> d.between(2, 63); };
        wire::chunk chunk{number(), number() / 2, d.chance(0.5), std::nullopt, {}};
        if (d.chance(0.5)) {
            chunk.first = wire::preface{number(), number()};
        }
        const wire::header head = wire::header::of(chunk);
        ASSERT_LE(head.size(), wire::header::max_size);
        const auto back = std::get<wire::chunk>(wire::decode(head.bytes()).value());
        ASSERT_EQ(std::tuple(back.stream, back.offset, back.last, back.first.has_value()),
                  std::tuple(chunk.stream, chunk.offset, chunk.last, chunk.first.has_value()));
        if (chunk.first) {
            ASSERT_EQ(std::pair(back.first->stream, back.first->length),
                      std::pair(chunk.first->stream, chunk.first->length));
        }
        const wire::stream_window grant{number(), number()};
        const auto granted = std::get<wire::stream_window>(wire::decode(wire::header::of(grant).bytes()).value());
        ASSERT_EQ(std::pair(granted.stream, granted.limit), std::pair(grant.stream, grant.limit));
        const uint64_t stopped = number();
        ASSERT_EQ(std::get<wire::stop>(wire::decode(wire::header::of(wire::stop{stopped}).bytes()).value()).stream,
                  stopped);
    }
}

}  // namespace
}  // namespace tndm::core
