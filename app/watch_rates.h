#ifndef TANDEM_APP_WATCH_RATES_H
#define TANDEM_APP_WATCH_RATES_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "app/watch_sample.h"

namespace tandem::app {

// Rates are bytes a second since the last sample; shares and losses are parts of 1.
struct path_report_t {
    path_sample_t sample;
    double down = 0;   // received by this end
    double up = 0;     // sent by this end
    double loss = 0;   // of the packets that this end sent
    double share = 0;  // of the connection's traffic, both ways
};

enum class congestion_t { none, steady, growing, draining };

struct link_report_t {
    link_sample_t sample;  // `paths` has moved into the reports
    double age = 0;        // seconds
    double down = 0;
    double up = 0;
    double loss = 0;
    double trend = 0;  // of the queue, bytes a second
    congestion_t congestion = congestion_t::none;
    std::vector<path_report_t> paths;
};

struct watch_report_t {
    std::chrono::system_clock::time_point time;
    size_t connected = 0;
    size_t left_out = 0;  // connections that are not in `links`
    double down = 0;      // of all connections
    double up = 0;
    std::vector<link_report_t> links;  // in the order of their numbers
};

// Makes rates of the counters of two samples and the time between them. Counters of a connection or a path that was not
// in the last sample have grown from 0 since then.
class watch_rates_t {
  public:
    // Reports have at most this many connections: the busiest.
    static constexpr size_t most_links = 64;

    watch_report_t update(watch_sample_t sample);

  private:
    using paths_t = std::map<std::string, path_sample_t>;

    link_report_t report_link(link_sample_t sample, std::chrono::steady_clock::time_point now, paths_t& counted) const;

    std::chrono::steady_clock::time_point last_time_;
    std::map<uint64_t, paths_t> last_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_WATCH_RATES_H
