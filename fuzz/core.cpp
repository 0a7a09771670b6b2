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

constexpr uint64_t most_bytes = 400'000;  // in all, so that a run stays short
constexpr size_t most_paths = 8;
constexpr int most_steps = 60;

options read_options(fuzz::input& in) {
    options o;
    o.seed = in.byte();
    for (core::limits* l : {&o.client, &o.server}) {
        l->streams = in.between(1, 40);
        l->stream_window = in.between(3000, 200'000);
        l->connection_window = in.between(3000, 400'000);
        l->stream_window_max = l->stream_window * in.between(1, 10);
        l->connection_window_max = l->connection_window * in.between(1, 10);
        l->paused_allowance = in.below(500'000);
    }
    const uint8_t how = in.byte();
    o.carriers.payload = in.between(600, 1400);
    o.carriers.fixed_window = (how & 1) != 0 ? in.between(20'000, 200'000) : 0;
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
            sim_.run_for(std::chrono::milliseconds(in_.below(64)));
            check();
        }
        heal();
        const bool done = sim_.run_until([this] { return sim_.all_drained() || !sim_.complaint().empty(); },
                                         std::chrono::minutes(20));
        check();
        require(done, "everything arrives once the trouble is over");
        for (const host* h : {&sim_.client, &sim_.server}) {
            require(h->bundle.bytes_held() == 0, "nothing is held once everything was delivered");
            require(std::set<uint64_t>(h->closed.begin(), h->closed.end()).size() == h->closed.size(),
                    "a stream is over once");
        }
    }

  private:
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
            default:
                write(h, (what & 0x40) != 0, (what & 0x30) == 0x30);
        }
    }

    size_t path() { return in_.below(static_cast<uint32_t>(sim_.path_count())); }

    void write(host& h, bool much, bool last) {
        const uint64_t id = in_.below(48);
        const uint64_t bytes = std::min<uint64_t>(in_.below(much ? 65536 : 256), most_bytes - written_);
        const auto before = h.sent.find(id);
        if (before != h.sent.end() && before->second.ended) return;
        // The bundle may refuse: not this side's to write, or no credit.
        if (sim_.send(h, id, bytes, last)) written_ += bytes;
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
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    play(in).run();
    return 0;
}
