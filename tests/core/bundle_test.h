// The vocabulary of the cases: start, run_for, run_until_done, expect_intact, longest_pause.
#ifndef TANDEM_TESTS_CORE_BUNDLE_TEST_H
#define TANDEM_TESTS_CORE_BUNDLE_TEST_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "tests/core/simulator.h"

namespace tndm::sim {

using namespace std::chrono_literals;

inline double seconds(duration d) {
    return std::chrono::duration<double>(d).count();
}

// A sender whose window follows the path and not the losses, as a rate-based congestion control has it: choose the
// path's bandwidth-delay product and half of its queue. (The model's own window collapses under 1 % of loss.)
inline options with_window(size_t bytes, uint64_t seed = 1) {
    options o;
    o.seed = seed;
    o.carriers.fixed_window = bytes;
    return o;
}

class bundle_test : public ::testing::Test {
  protected:
    void start(const std::vector<link_settings>& paths, const options& settings = {}) {
        // The old trace must go before the new one comes: they are a stack.
        trace_.reset();
        trace_ = std::make_unique<::testing::ScopedTrace>(__FILE__, __LINE__, "seed " + std::to_string(settings.seed));
        sim_ = std::make_unique<simulator>(settings);
        for (const link_settings& p : paths) {
            sim_->add_path(p);
        }
        began_ = sim_->now();
    }

    simulator& sim() { return *sim_; }
    host& client() { return sim_->client; }
    host& server() { return sim_->server; }
    void send(host& from, uint64_t stream, uint64_t bytes, bool last = false) {
        EXPECT_TRUE(sim_->send(from, stream, bytes, last)) << "stream " << stream;
    }
    void run_for(duration time) { sim_->run_for(time); }
    // Time from the start.
    duration elapsed() const { return sim_->now() - began_; }
    instant after(duration time) const { return began_ + time; }

    // Until everything is delivered and acknowledged; the time that passed.
    duration run_until_done(duration limit) {
        const instant from = sim_->now();
        EXPECT_TRUE(sim_->run_until([&] { return sim_->all_drained() || !sim_->complaint().empty(); }, limit))
            << "not done after " << seconds(limit) << " s";
        return sim_->now() - from;
    }
    // No byte lost, doubled or out of place, and nobody broke a rule.
    void expect_intact() {
        EXPECT_EQ(sim_->complaint(), "");
        EXPECT_TRUE(sim_->all_delivered());
    }
    // Between one delivery to `at` and the next, from `from` on.
    duration longest_pause(const host& at, instant from) const {
        duration longest{0};
        instant before = from;
        for (const host::event& e : at.log) {
            if (e.at >= from) {
                longest = std::max(longest, e.at - before);
                before = e.at;
            }
        }
        return longest;
    }
    // The first delivery to `at` from then on; never() when there is none.
    static instant first_delivery(const host& at, instant from) {
        const auto found =
            std::find_if(at.log.begin(), at.log.end(), [from](const host::event& e) { return e.at >= from; });
        return found == at.log.end() ? core::never : found->at;
    }
    static double mbit(uint64_t bytes, duration time) { return static_cast<double>(bytes) * 8e-6 / seconds(time); }

  private:
    std::unique_ptr<simulator> sim_;
    std::unique_ptr<::testing::ScopedTrace> trace_;
    instant began_{};
};

}  // namespace tndm::sim

#endif
