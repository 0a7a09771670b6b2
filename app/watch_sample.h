#ifndef TANDEM_APP_WATCH_SAMPLE_H
#define TANDEM_APP_WATCH_SAMPLE_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace tandem::app {

// What --watch has seen at one moment. Names, states and labels may be a peer's words: not to be printed as they are.

// One path of a connection, as this end's transport tells it; counters since the connection began.
struct path_sample_t {
    std::string name;
    std::string state;
    uint64_t rtt_us = 0;
    uint64_t window_bytes = 0;
    uint64_t delivery_rate = 0;  // bytes a second
    uint64_t pacing_rate = 0;    // bytes a second
    uint64_t packets_sent = 0;
    uint64_t packets_received = 0;
    uint64_t packets_lost = 0;
    uint64_t bytes_sent = 0;
    uint64_t bytes_received = 0;
    uint64_t bytes_resent = 0;
};

// The same path as the peer has reported it; `up` and `down` are the peer's.
struct peer_path_t {
    std::string name;
    std::string state;
    uint64_t rtt_ms = 0;
    uint64_t up_rate = 0;    // bytes a second
    uint64_t down_rate = 0;  // bytes a second
    uint64_t lost_rate = 0;  // packets a second
    uint64_t bytes_sent = 0;
    uint64_t bytes_received = 0;
    uint64_t packets_lost = 0;
};

struct link_sample_t {
    uint64_t number = 0;  // tells the connections of one run apart
    std::string label;
    std::chrono::steady_clock::time_point since;
    std::vector<path_sample_t> paths;
    std::vector<peer_path_t> peer_paths;
    uint64_t bytes_queued = 0;  // handed to the connection and not sent yet
    int64_t trend = 0;          // of that, in ten-thousandths of a byte a millisecond
};

struct watch_sample_t {
    std::chrono::steady_clock::time_point now;
    std::chrono::system_clock::time_point time;
    std::vector<link_sample_t> links;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_WATCH_SAMPLE_H
