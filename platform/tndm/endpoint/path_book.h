// What is known of a connection's paths, told by name, across the subflows that come and go on them.
//
// A subflow counts from zero. When it leaves, what it had counted is added to its path's past, so a path's counters
// never go backwards for as long as the path is listed; two subflows of one path at once are summed.
//
//   lane joins --> joined() --> in `live` of each records() --> left() --> only its path's past remains
//
// One thread; no sockets, no clock.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_PATH_BOOK_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_PATH_BOOK_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "link/tndm.h"

namespace tndm {

class path_book {
  public:
    // Names that are remembered without a subflow. A peer may name as many paths as it likes, one after the other: the
    // one that has been without a subflow longest is forgotten then.
    static constexpr size_t max_idle_names = 32;

    struct counters {
        uint64_t packets_sent = 0;
        uint64_t packets_received = 0;
        uint64_t bytes_sent = 0;
        uint64_t bytes_received = 0;
        uint64_t packets_lost = 0;  // may shrink: a loss turns out to be none
        uint64_t bytes_resent = 0;

        counters& operator+=(const counters& more);
    };
    // One subflow that has joined, as it is now.
    struct lane_figures {
        std::string_view name;
        bool answers = false;
        bool backup = false;  // carries only while no other lane answers
        uint64_t rtt_us = 0;
        uint64_t window = 0;
        uint64_t delivery_rate = 0;
        uint64_t pacing_rate = 0;
        counters counted;
    };
    // A path that this side wants, and what it is (TNDM_PATH_*) while no subflow on it has joined.
    struct wish {
        std::string name;
        int32_t state = TNDM_PATH_IDLE;
    };

    // Every joined() is followed by one left() with the same name.
    void joined(std::string_view name);
    void left(const lane_figures& last);
    // `live`: every lane that has joined and not left. With wishes: exactly those paths, in their order; what was known
    // of others is forgotten. Otherwise every path that has had a subflow, in the order of their first.
    std::vector<st_tndm_path_info_t> records(std::span<const lane_figures> live, const std::vector<wish>* wishes);

  private:
    struct entry {
        std::string name;
        unsigned lanes = 0;
        uint64_t idle_since = 0;  // of `turn_`
        counters past;
        uint64_t most_lost = 0;  // that was ever told
    };

    entry* find(std::string_view name);
    void bound_idle();
    static st_tndm_path_info_t record(std::string_view name, entry* known, std::span<const lane_figures> live,
                                      int32_t otherwise);

    std::vector<entry> entries_;
    uint64_t turn_ = 0;
};

}  // namespace tndm

#endif
