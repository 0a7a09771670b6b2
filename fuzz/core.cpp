// Two bundles and the paths between them in virtual time, driven by a script: applications that write, end and pause
// streams, paths that come, go and go dark. When the trouble is over and time has passed, everything has arrived, once
// and in order, and memory has stayed in its bounds.
#include <set>

#include "fuzz/input.h"
#include "tests/core/simulator.h"

namespace {

using fuzz::require;
using namespace std::chrono_literals;
using namespace tndm::sim;
namespace core = tndm::core;

// A run takes a few milliseconds: windows are a few packets wide, so that little traffic fills them.
constexpr uint64_t most_bytes = 24'000;  // in all
constexpr size_t most_paths = 4;
constexpr int most_steps = 32;

options read_options(fuzz::input& in) {
    options o;
    o.seed = in.byte();
    for (core::limits* l : {&o.client, &o.server}) {
        l->streams = in.between(1, 40);
        l->stream_window = in.between(1000, 8'000);
        l->connection_window = in.between(1000, 16'000);
        l->stream_window_max = l->stream_window * in.between(1, 8);
        l->connection_window_max = l->connection_window * in.between(1, 8);
        l->paused_allowance = in.below(24'000);
    }
    const uint8_t how = in.byte();
    o.carriers.payload = in.between(500, 1400);
    o.carriers.fixed_window = (how & 1) != 0 ? in.between(6'000, 30'000) : 0;
    o.carriers.forgets = (how & 2) != 0 ? 0.3 : 0;
    o.carriers.probes_tails = (how & 12) != 12;
    o.heartbeat = (how & 16) != 0 ? 1s : 0s;
    return o;
}

link_settings read_link(fuzz::input& in) {
    link_settings l;
    const uint8_t how = in.byte();
    l.mbit = in.between(1, 100);
    l.delay = std::chrono::microseconds(in.between(100, 150'000));
    l.jitter = (how & 1) != 0 ? std::chrono::microseconds(in.below(30'000)) : 0us;
    l.loss = (how & 2) != 0 ? static_cast<double>(in.below(80)) / 1000 : 0;
    l.burst = (how & 4) != 0 ? in.between(1, 6) : 1;
    l.queue = (how & 8) != 0 ? 20'000 : 0;
    l.backup = (how & 16) != 0;
    return l;
}

class play {
  public:
    explicit play(fuzz::input& in) : in_(in), options_(read_options(in)), sim_(options_) {
        const uint8_t schedules = in_.byte();
        if ((schedules & 1) != 0) sim_.client.bundle.set_schedule(core::redundant());
        if ((schedules & 2) != 0) sim_.server.bundle.set_schedule(core::redundant());
        const uint32_t paths = in_.between(1, 3);
        for (uint32_t i = 0; i < paths; ++i) {
            sim_.add_path(read_link(in_));
        }
    }

    void run() {
        for (int step = 0; step < most_steps && in_.more(); ++step) {
            operate();
            sim_.run_for(pause_between());
            check();
        }
        heal();
        // Asking after every event would cost more than the events.
        for (auto step = 50ms; !sim_.all_drained(); step = std::min<std::chrono::milliseconds>(2 * step, 2s)) {
            require(sim_.now() < end_, "everything arrives once the trouble is over");
            sim_.run_for(step);
            check();
            end_stuck_lanes();
        }
        for (const host* h : {&sim_.client, &sim_.server}) {
            require(h->bundle.bytes_held() == 0, "nothing is held once everything was delivered");
            require(std::set<uint64_t>(h->closed.begin(), h->closed.end()).size() == h->closed.size(),
                    "a stream is over once");
        }
    }

  private:
    // Most are short; two of the longest are more silence than a client bears on a path.
    std::chrono::milliseconds pause_between() {
        const uint8_t how = in_.byte();
        return std::chrono::milliseconds(how & 0x3f) * (1 << how / 64 * 2);
    }

    void check() {
        const std::string complaint = sim_.complaint();
        require(complaint.empty(), complaint.c_str());
        require(sim_.client.most_held <= options_.client.connection_window_max + options_.client.paused_allowance,
                "the client's memory is bounded");
        require(sim_.server.most_held <= options_.server.connection_window_max + options_.server.paused_allowance,
                "the server's memory is bounded");
    }

    void operate() {
        const uint8_t what = in_.byte();
        host& h = (what & 0x80) != 0 ? sim_.client : sim_.server;
        switch (what & 15) {
            case 0:
                sim_.remove_path(path());
                break;
            case 1:
                if (sim_.path_count() < most_paths) sim_.open_path(read_link(in_));
                break;
            case 2:
                sim_.go_dark(path());
                break;
            case 3:
                sim_.come_back(path());
                break;
            case 4:
                sim_.forth(path()).set_dark((what & 0x40) != 0);
                break;
            case 5:
                sim_.back(path()).set_dark((what & 0x40) != 0);
                break;
            case 6:
            case 7: {
                const uint64_t id = in_.below(48);
                sim_.pause(h, id, (what & 1) == 0);
                paused_.insert({&h, id});
                break;
            }
            case 8:
                meddle(sim_.forth(path()));
                break;
            case 9:
                meddle(sim_.back(path()));
                break;
            default:
                write(h, (what & 0x40) != 0, (what & 0x30) == 0x30);
        }
    }

    // Chooses among the next eight packets: they are lost, or late.
    void meddle(tndm::sim::link& with) {
        const uint8_t late = in_.byte();
        with.hand = [chosen = in_.byte(), late](const packet&) mutable -> std::optional<duration> {
            const bool is_chosen = (chosen & 1) != 0;
            chosen = static_cast<uint8_t>(chosen >> 1);
            if (!is_chosen) return duration{0};
            return late == 0 ? std::nullopt : std::optional<duration>(std::chrono::milliseconds(late));
        };
    }

    size_t path() { return in_.below(static_cast<uint32_t>(sim_.path_count())); }

    void write(host& h, bool much, bool last) {
        const uint64_t id = in_.below(48);
        const uint64_t bytes = std::min<uint64_t>(in_.below(much ? 8192 : 256), most_bytes - written_);
        const auto before = h.sent.find(id);
        if (before != h.sent.end() && before->second.ended) return;
        // The bundle may refuse: not this side's to write, or no credit.
        if (sim_.send(h, id, bytes, last)) written_ += bytes;
    }

    // As a server does, which cannot open another carrier: it tells the client, which can.
    void end_stuck_lanes() {
        for (size_t i = sim_.path_count(); i-- > 0;) {
            const core::lane* lane = sim_.lane_of(sim_.server, i);
            if (lane == nullptr || !lane->stuck() || sim_.now() - lane->waiting_since() < 1s) continue;
            sim_.remove_path(i);
            sim_.open_path(sim_.forth(i).settings());
        }
    }

    void heal() {
        bool any = false;
        for (size_t i = 0; i < sim_.path_count(); ++i) {
            sim_.come_back(i);
            any = any || !sim_.is_removed(i);
        }
        if (!any) sim_.open_path({});
        for (const auto& [h, id] : paused_) {
            sim_.pause(*h, id, false);
        }
    }

    fuzz::input& in_;
    const options options_;
    simulator sim_;
    std::set<std::pair<host*, uint64_t>> paused_;
    uint64_t written_ = 0;
    const instant end_ = sim_.now() + std::chrono::minutes(30);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    play(in).run();
    return 0;
}
