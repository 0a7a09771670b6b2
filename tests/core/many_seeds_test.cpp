// Drawn networks, drawn limits, drawn operations; whatever happens, nothing is lost and memory stays in its bounds.
#include <set>

#include "tests/core/bundle_test.h"

namespace tndm::sim {
namespace {

class many_seeds : public bundle_test {
  protected:
    void play(uint64_t seed) {
        dice_ = dice(seed);
        options o = draw_options(seed);
        std::vector<link_settings> links;
        for (uint64_t i = dice_.between(1, 3); i > 0; --i) {
            links.push_back(draw_link());
        }
        start(links, o);
        for (uint64_t i = dice_.between(50, 250); i > 0; --i) {
            operate();
            run_for(duration(std::chrono::milliseconds(dice_.below(60))));
            if (!sim().complaint().empty()) {
                break;
            }
        }
        heal();
        run_until_done(120s);
        expect_intact();
        check_bounds(o);
    }

  private:
    link_settings draw_link() {
        link_settings l;
        l.mbit = static_cast<double>(dice_.between(1, 100));
        l.delay = std::chrono::microseconds(dice_.between(100, 150'000));
        l.jitter = dice_.chance(0.3) ? std::chrono::microseconds(dice_.below(30'000)) : 0us;
        l.loss = dice_.chance(0.6) ? static_cast<double>(dice_.below(80)) / 1000 : 0;
        l.burst = static_cast<double>(dice_.between(1, 6));
        l.queue = dice_.chance(0.3) ? 20'000 : 0;
        return l;
    }
    options draw_options(uint64_t seed) {
        options o;
        o.seed = seed;
        for (core::limits* l : {&o.client, &o.server}) {
            l->streams = dice_.between(1, 40);
            l->stream_window = dice_.between(3000, 300'000);
            l->connection_window = dice_.between(3000, 600'000);
            l->stream_window_max = l->stream_window * dice_.between(1, 10);
            l->connection_window_max = l->connection_window * dice_.between(1, 10);
            l->paused_allowance = dice_.below(500'000);
        }
        o.carriers.payload = dice_.between(600, 1400);
        o.carriers.fixed_window = dice_.chance(0.6) ? dice_.between(20'000, 400'000) : 0;
        o.carriers.forgets = dice_.chance(0.3) ? 0.3 : 0;
        o.carriers.probes_tails = !dice_.chance(0.2);
        o.heartbeat = dice_.chance(0.5) ? 1s : 0s;
        return o;
    }

    void operate() {
        host& h = dice_.chance(0.5) ? client() : server();
        const uint64_t what = dice_.below(100);
        if (what < 55) {
            write(h);
        } else if (what < 75) {
            const uint64_t id = draw_stream();
            const bool paused = dice_.chance(0.7);
            sim().pause(h, id, paused);
            paused_.insert({&h, id});
        } else {
            disturb(dice_.below(sim().path_count()));
        }
    }
    uint64_t draw_stream() { return 4 * dice_.below(12) + dice_.below(4); }
    void write(host& h) {
        const uint64_t id = draw_stream();
        if (h.sent[id].ended) {
            return;
        }
        const uint64_t bytes = dice_.chance(0.2) ? dice_.below(150'000) : dice_.below(3000);
        sim().send(h, id, bytes, dice_.chance(0.15));  // the bundle may refuse: not ours to write, or no credit
    }
    void disturb(size_t number) {
        switch (dice_.below(8)) {
            case 0:
                sim().remove_path(number);
                break;
            case 1:
                if (sim().path_count() < 12) {
                    sim().open_path(draw_link());
                }
                break;
            case 2:
            case 3:
                sim().go_dark(number);
                break;
            case 4:
                (dice_.chance(0.5) ? sim().forth(number) : sim().back(number)).set_dark(true);
                break;
            default:
                sim().come_back(number);
        }
    }
    void heal() {
        bool any = false;
        for (size_t i = 0; i < sim().path_count(); ++i) {
            sim().come_back(i);
            any = any || !sim().is_removed(i);
        }
        if (!any) {
            sim().open_path({});
        }
        for (const auto& [h, id] : paused_) {
            sim().pause(*h, id, false);
        }
        paused_.clear();
    }
    void check_bounds(const options& o) {
        EXPECT_LE(client().most_held, o.client.connection_window_max + o.client.paused_allowance);
        EXPECT_LE(server().most_held, o.server.connection_window_max + o.server.paused_allowance);
        for (const host* h : {&client(), &server()}) {
            EXPECT_EQ(h->bundle.bytes_held(), 0U);
            EXPECT_EQ(std::set<uint64_t>(h->closed.begin(), h->closed.end()).size(), h->closed.size());
        }
    }

    dice dice_{0};
    std::set<std::pair<host*, uint64_t>> paused_;
};

TEST_F(many_seeds, of_networks_and_operations_lose_nothing) {
    for (uint64_t seed = 1; seed <= 150 && !HasFailure(); ++seed) {
        play(seed);
    }
}

}  // namespace
}  // namespace tndm::sim
