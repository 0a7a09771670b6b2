// Two bundles, the paths between them and virtual time.
//
//   client bundle -- carrier ==[ link ]==> carrier -- server bundle
//                            <=[ link ]==
//
// Nothing sleeps and nothing reads a clock: the loop jumps from event to event, and a seed gives the same run again.
// What goes over a stream is a pattern that depends on stream, offset and direction, checked as it is delivered.
#ifndef TANDEM_TESTS_CORE_SIMULATOR_H
#define TANDEM_TESTS_CORE_SIMULATOR_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/tndm/core/bundle.h"
#include "tests/core/carrier.h"
#include "tests/core/link.h"
#include "tests/core/random.h"

namespace tndm::sim {

struct options {
    uint64_t seed = 1;
    core::limits client;
    core::limits server;
    carrier_settings carriers;
    duration heartbeat{0};
    bool fresh_carriers = true;  // a path that has been silent for long gets a new connection
};

// One end: its bundle, its carriers, and an application that reads at once and remembers what it saw.
class host {
  public:
    struct outbox {
        uint64_t bytes = 0;
        bool ended = false;
    };
    struct inbox {
        uint64_t bytes = 0;
        bool ended = false;
        instant last_at{};
    };
    struct event {
        instant at;
        uint64_t stream;
        uint64_t bytes;
        bool last;
    };

    host(core::role role, const core::limits& own, const core::limits& peer);
    host(const host&) = delete;
    host& operator=(const host&) = delete;

    core::bundle bundle;
    std::map<uint64_t, outbox> sent;
    std::map<uint64_t, inbox> received;
    std::vector<event> log;        // every delivery
    std::vector<uint64_t> closed;  // streams that are over
    uint64_t most_held = 0;        // the peak of bytes_held()
    uint64_t total_received = 0;

  private:
    friend class simulator;
    // Takes what there is and compares it with what the other end sent.
    void deliver_all(instant now);

    std::map<core::lane_id, std::unique_ptr<carrier>> carriers_;
    core::delivery delivery_;
    core::role role_;
    instant settled_at_{};
    std::string complaint_;
};

class simulator {
  public:
    explicit simulator(const options& settings);
    simulator(const simulator&) = delete;
    simulator& operator=(const simulator&) = delete;

    host client;
    host server;

    instant now() const { return now_; }

    // --- paths; numbered from 0, a number is never used again ---
    // Both ends have it at once.
    size_t add_path(const link_settings& both) { return add_path(both, both); }
    size_t add_path(const link_settings& forth, const link_settings& back);
    // The client opens it as it would a fresh carrier: a round trip passes before either end can use it for long.
    size_t open_path(const link_settings& both);
    void remove_path(size_t path);
    void go_dark(size_t path);
    void come_back(size_t path);
    bool is_removed(size_t path) const { return paths_[path]->removed; }
    size_t path_count() const { return paths_.size(); }
    link& forth(size_t path) { return paths_[path]->forth; }  // from the client to the server
    link& back(size_t path) { return paths_[path]->back; }
    // Null while the end has no lane on the path.
    const core::lane* lane_of(const host& end, size_t path) const;

    // --- the applications ---
    // False when the bundle refuses.
    bool send(host& from, uint64_t stream, uint64_t bytes, bool last = false);
    bool finish(host& from, uint64_t stream) { return send(from, stream, 0, true); }
    void pause(host& at, uint64_t stream, bool paused);

    // --- time ---
    void at(instant when, std::function<void()> action);
    void run_for(duration time) {
        run_until([] { return false; }, time);
    }
    // False when `limit` has passed before `done` held; it is asked after every event.
    bool run_until(const std::function<bool()>& done, duration limit);

    // --- what came of it ---
    // Everything that either end sent has been delivered to the other.
    bool all_delivered() const;
    // And acknowledged.
    bool all_drained() const { return all_delivered() && client.bundle.drained() && server.bundle.drained(); }
    // What went wrong first, in words; empty when nothing did: bytes that differ, bytes too many, rules that an honest
    // end has broken in the other's eyes, a deadline that stays in the past.
    std::string complaint() const;

  private:
    struct both_ways {
        both_ways(const link_settings& forward, const link_settings& backward, uint64_t seed)
            : forth(forward, seed), back(backward, seed + 1) {}
        link forth;
        link back;
        uint32_t opening = 0;  // the connection that the client is trying to open; 0: none
        bool removed = false;
    };
    struct event {
        instant at;
        uint64_t order;
        std::function<void()> run;
        bool operator<(const event& other) const { return at != other.at ? at > other.at : order > other.order; }
    };

    void settle(host& h);
    void arrive(size_t path, bool at_server, packet&& arrived);
    void carry(size_t path, bool to_server, packet&& sent);
    void add_carrier(host& h, size_t path, uint32_t connection);
    carrier* find_carrier(const host& h, uint32_t connection) const;
    void remove_carriers(host& h, size_t path, uint32_t except);
    void reopen_silent_paths();
    void request(size_t path, uint32_t connection);
    instant next_event() const;

    options settings_;
    dice dice_;
    instant now_{std::chrono::seconds(1000)};
    uint64_t order_ = 0;
    std::vector<event> events_;  // a heap
    std::vector<std::unique_ptr<both_ways>> paths_;
    std::vector<size_t> path_of_connection_{0};  // by connection number, which starts at 1
};

}  // namespace tndm::sim

#endif
