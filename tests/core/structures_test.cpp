// The small structures against models too simple to be wrong, with random operations.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "platform/tndm/core/range_set.h"
#include "platform/tndm/core/receive_stream.h"
#include "platform/tndm/core/send_stream.h"
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
                if (model[i] && !runs.empty() && runs.back().end == i) {
                    ++runs.back().end;
                } else if (model[i]) {
                    runs.push_back({i, i + 1});
                }
            }
            ASSERT_EQ(ranges.count(), runs.size());
            ASSERT_EQ(ranges.empty(), runs.empty());
            if (!runs.empty()) {
                ASSERT_EQ(ranges.front(), runs.front());
            }
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
            uint64_t run_end = r.begin;
            while (model[run_end]) {
                ++run_end;
            }
            ASSERT_EQ(ranges.end_of_run(r.begin), run_end);
        }
    }
}

uint8_t byte_at(uint64_t offset) {
    return static_cast<uint8_t>(offset * 167 + offset / 251);
}

std::vector<uint8_t> bytes_of(range part) {
    std::vector<uint8_t> made;
    for (uint64_t i = part.begin; i < part.end; ++i) {
        made.push_back(byte_at(i));
    }
    return made;
}

TEST(receive_stream, delivers_each_byte_once_and_in_order_from_chunks_of_any_shape) {
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        dice d(seed);
        const uint64_t length = d.below(200'000);
        receive_stream stream(length);
        std::set<uint64_t> cuts{0, length};
        for (uint64_t i = d.below(300); i > 0; --i) {
            cuts.insert(d.below(length + 1));
        }
        std::vector<range> chunks;
        for (auto at = cuts.begin(); std::next(at) != cuts.end(); ++at) {
            // Overlaps its neighbours, and comes up to three times.
            const range part{*at - d.below(std::min<uint64_t>(*at, 300) + 1),
                             *std::next(at) + d.below(std::min<uint64_t>(length - *std::next(at), 300) + 1)};
            chunks.insert(chunks.end(), 1 + d.below(3), part);
        }
        if (length == 0) {
            chunks.push_back({0, 0});
        }
        for (size_t i = chunks.size(); i > 1; --i) {
            std::swap(chunks[i - 1], chunks[d.below(i)]);
        }
        std::vector<uint8_t> taken;
        std::vector<uint8_t> out;
        std::vector<bool> here(length);
        bool ended = false;
        for (const range& part : chunks) {
            const auto bytes = bytes_of(part);
            ASSERT_EQ(stream.receive(part.begin, bytes, part.end == length), receive_stream::result::ok);
            std::fill(here.begin() + static_cast<ptrdiff_t>(part.begin),
                      here.begin() + static_cast<ptrdiff_t>(part.end), true);
            if (d.chance(0.3) && stream.deliverable()) {
                ended = stream.take(out);
                taken.insert(taken.end(), out.begin(), out.end());
            }
            const auto prefix = std::find(here.begin(), here.end(), false) - here.begin();
            ASSERT_EQ(taken.size(), stream.taken());
            ASSERT_EQ(taken.size() + stream.ready(), static_cast<size_t>(prefix));
        }
        if (!ended) {
            ASSERT_TRUE(stream.deliverable());
            ASSERT_TRUE(stream.take(out));
            taken.insert(taken.end(), out.begin(), out.end());
        }
        ASSERT_TRUE(stream.done());
        ASSERT_FALSE(stream.deliverable());
        ASSERT_EQ(stream.gaps(), 0U);
        ASSERT_EQ(taken, bytes_of({0, length}));
    }
}

// What went out, was acknowledged and was lost, offset by offset; the end of the stream is the offset `length`.
struct sender_model {
    std::vector<bool> sent, acknowledged, waits;

    void mark(std::vector<bool>& in, range part, bool value) const {
        std::fill(in.begin() + static_cast<ptrdiff_t>(part.begin), in.begin() + static_cast<ptrdiff_t>(part.end),
                  value);
    }
    void lose(range part) {
        for (uint64_t i = part.begin; i < part.end; ++i) {
            waits[i] = waits[i] || !acknowledged[i];
        }
    }
    void acknowledge(range part) {
        mark(acknowledged, part, true);
        mark(waits, part, false);
    }
};

void expect_pieces(const send_stream& stream, range part, uint64_t length) {
    const pieces found = stream.gather(part);
    const uint64_t wanted = std::min(part.end, length) - std::min(part.begin, length);
    ASSERT_LE(found.bytes, wanted);
    ASSERT_TRUE(found.bytes == wanted || found.count == pieces::max_count);
    uint64_t at = part.begin;
    for (size_t i = 0; i < found.count; ++i) {
        for (const uint8_t byte : found.parts[i]) {
            ASSERT_EQ(byte, byte_at(at++));
        }
    }
    ASSERT_EQ(at - part.begin, found.bytes);
}

TEST(send_stream, sends_what_was_queued_and_again_what_was_lost_until_all_has_arrived) {
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        dice d(seed);
        const uint64_t length = d.below(12'000);
        uint64_t queued = 0;
        uint64_t limit = d.below(2000);
        send_stream stream(limit);
        sender_model model{std::vector<bool>(length + 1), std::vector<bool>(length + 1), std::vector<bool>(length + 1)};
        std::vector<range> under_way;
        for (int step = 0; !stream.done(); ++step) {
            ASSERT_LT(step, 100'000);
            const uint64_t what = d.below(6);
            if (what == 0 && !stream.finished()) {
                const range part{queued, std::min(length, queued + 1 + d.below(d.chance(0.5) ? 40 : 3000))};
                stream.queue(buffer::copy_of(bytes_of(part)));
                queued = part.end;
                if (queued == length && d.chance(0.5)) {
                    stream.finish();
                }
            } else if (what == 1) {
                limit += d.below(3000);
                stream.raise_limit(limit);
            } else if (what == 2) {
                const uint64_t room = d.below(3000);
                const range part = stream.fresh(1 + d.below(1500), room);
                if (!part.empty()) {
                    ASSERT_LE(std::min(part.end, length), limit);
                    ASSERT_LE(std::min(part.end, length) - part.begin, room);
                    expect_pieces(stream, part, length);
                    model.mark(model.sent, part, true);
                    stream.mark_fresh_sent(part);
                    under_way.push_back(part);
                }
            } else if (what == 3 && stream.has_resend()) {
                const range part = stream.resend(1 + d.below(1500));
                ASSERT_FALSE(part.empty());
                for (uint64_t i = part.begin; i < part.end; ++i) {
                    ASSERT_TRUE(model.waits[i]) << i;
                }
                expect_pieces(stream, part, length);
                stream.mark_resent(part);
                model.mark(model.waits, part, false);
                under_way.push_back(part);
            } else if (!under_way.empty()) {
                const size_t which = d.below(under_way.size());
                const range part = under_way[which];
                const range needed = stream.still_needed(part);
                for (uint64_t i = part.begin; i < std::min(needed.begin, part.end); ++i) {
                    ASSERT_TRUE(needed.empty() || model.acknowledged[i]);
                }
                expect_pieces(stream, needed, length);
                if (what == 4) {
                    stream.requeue(part, instant{});
                    model.lose(part);
                } else {
                    stream.acknowledge(part);
                    model.acknowledge(part);
                    // Once in a while it is heard of again.
                    if (d.chance(0.8)) {
                        under_way.erase(under_way.begin() + static_cast<ptrdiff_t>(which));
                    }
                }
            }
            ASSERT_EQ(stream.has_resend(),
                      std::find(model.waits.begin(), model.waits.end(), true) != model.waits.end());
            ASSERT_EQ(stream.acknowledged_prefix(),
                      static_cast<uint64_t>(std::find(model.acknowledged.begin(), model.acknowledged.end(), false) -
                                            model.acknowledged.begin()));
            if (!stream.finished() && queued == length) {
                stream.finish();
            }
        }
        ASSERT_EQ(std::find(model.sent.begin(), model.sent.end(), false), model.sent.end());
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
        const auto read = wire::decode(head.bytes());
        ASSERT_TRUE(read);
        const auto* back = std::get_if<wire::chunk>(&*read);
        ASSERT_NE(back, nullptr);
        ASSERT_EQ(back->stream, chunk.stream);
        ASSERT_EQ(back->offset, chunk.offset);
        ASSERT_EQ(back->last, chunk.last);
        ASSERT_EQ(back->first.has_value(), chunk.first.has_value());
        if (chunk.first) {
            ASSERT_EQ(back->first->stream, chunk.first->stream);
            ASSERT_EQ(back->first->length, chunk.first->length);
        }
        const wire::stream_window grant{number(), number()};
        const auto granted = wire::decode(wire::header::of(grant).bytes());
        ASSERT_TRUE(granted);
        ASSERT_EQ(std::get<wire::stream_window>(*granted).stream, grant.stream);
        ASSERT_EQ(std::get<wire::stream_window>(*granted).limit, grant.limit);
    }
}

}  // namespace
}  // namespace tndm::core
