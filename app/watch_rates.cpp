#include "app/watch_rates.h"

#include <algorithm>
#include <cmath>

namespace tandem::app {
namespace {

// Less than this is only passing through.
constexpr uint64_t small_queue = 64 * 1024;
constexpr double undefined_slope = 9999999999999999.0;
constexpr double least_change = 8 * 1024;  // bytes a second: a queue that changes less stands still

// A counter that went backwards was begun anew.
uint64_t grown(uint64_t now, uint64_t before) {
    return now >= before ? now - before : 0;
}

double part(double of, double whole) {
    return whole > 0 ? std::min(of / whole, 1.0) : 0;
}

congestion_t congestion_of(uint64_t queued, double trend, double up) {
    if (queued < small_queue) return congestion_t::none;
    const double change = std::max(least_change, up / 20);
    if (std::abs(trend) <= change) return congestion_t::steady;
    return trend > 0 ? congestion_t::growing : congestion_t::draining;
}

}  // namespace

link_report_t watch_rates_t::report_link(link_sample_t sample, std::chrono::steady_clock::time_point now,
                                         paths_t& counted) const {
    const auto last = last_.find(sample.number);
    const std::chrono::duration<double> age = now - sample.since;
    const std::chrono::duration<double> since_last = now - last_time_;
    const double seconds = std::max(last == last_.end() ? age.count() : since_last.count(), 0.001);
    link_report_t made;
    made.age = std::max(age.count(), 0.0);
    uint64_t sent = 0;
    uint64_t lost = 0;
    for (path_sample_t& path : sample.paths) {
        path_sample_t before;
        if (last != last_.end()) {
            if (const auto known = last->second.find(path.name); known != last->second.end()) before = known->second;
        }
        path_report_t& of = made.paths.emplace_back();
        of.down = static_cast<double>(grown(path.bytes_received, before.bytes_received)) / seconds;
        of.up = static_cast<double>(grown(path.bytes_sent, before.bytes_sent)) / seconds;
        const uint64_t path_sent = grown(path.packets_sent, before.packets_sent);
        const uint64_t path_lost = grown(path.packets_lost, before.packets_lost);
        of.loss = part(static_cast<double>(path_lost), static_cast<double>(path_sent));
        made.down += of.down;
        made.up += of.up;
        sent += path_sent;
        lost += path_lost;
        counted[path.name] = path;
        of.sample = std::move(path);
    }
    for (path_report_t& of : made.paths)
        of.share = part(of.down + of.up, made.down + made.up);
    made.loss = part(static_cast<double>(lost), static_cast<double>(sent));
    // From ten-thousandths of a byte a millisecond.
    const double slope = static_cast<double>(sample.trend);
    made.trend = slope >= undefined_slope ? 0 : slope / 10;
    made.congestion = congestion_of(sample.bytes_queued, made.trend, made.up);
    sample.paths.clear();
    made.sample = std::move(sample);
    return made;
}

watch_report_t watch_rates_t::update(watch_sample_t sample) {
    watch_report_t made;
    made.time = sample.time;
    made.connected = sample.links.size();
    std::map<uint64_t, paths_t> counted;
    for (link_sample_t& link : sample.links) {
        paths_t& paths = counted[link.number];
        const link_report_t& added = made.links.emplace_back(report_link(std::move(link), sample.now, paths));
        made.down += added.down;
        made.up += added.up;
    }
    last_ = std::move(counted);
    last_time_ = sample.now;
    if (made.links.size() > most_links) {
        made.left_out = made.links.size() - most_links;
        std::nth_element(made.links.begin(), made.links.begin() + most_links, made.links.end(),
                         [](const auto& a, const auto& b) { return a.down + a.up > b.down + b.up; });
        made.links.resize(most_links);
    }
    std::sort(made.links.begin(), made.links.end(),
              [](const auto& a, const auto& b) { return a.sample.number < b.sample.number; });
    return made;
}

}  // namespace tandem::app
