#include "app/watch_columns.h"

#include <cmath>
#include <cstdio>

namespace tandem::app {
namespace {

using report_t = path_report_t;
using sample_t = path_sample_t;

template <auto figure>
double reported(const report_t& path) {
    return path.*figure;
}

template <auto figure>
double percent(const report_t& path) {
    return path.*figure * 100;
}

template <auto figure>
double sampled(const report_t& path) {
    return static_cast<double>(path.sample.*figure);
}

double rtt_ms(const report_t& path) {
    return static_cast<double>(path.sample.rtt_us) / 1000;
}

std::string rtt_text(const report_t& path) {
    const sample_t& now = path.sample;
    const bool known = now.rtt_us != 0 && now.state != "DEAD" && now.state != "CONNECTING";
    return known ? with_unit(rtt_ms(path), "ms") : "-";
}

template <auto figure>
std::string rate_text(const report_t& path) {
    return bit_rate(path.*figure);
}

template <auto figure, int decimals>
std::string percent_text(const report_t& path) {
    char text[32];
    snprintf(text, sizeof(text), "%.*f %%", decimals, percent<figure>(path));
    return text;
}

constexpr path_column_t columns[] = {
    {"rtt_ms", rtt_ms, "ROUND TRIP", 11, rtt_text},
    {"down_bytes_per_s", reported<&report_t::down>, "DOWN", 14, rate_text<&report_t::down>},
    {"up_bytes_per_s", reported<&report_t::up>, "UP", 14, rate_text<&report_t::up>},
    {"loss_percent", percent<&report_t::loss>, "LOSS", 9, percent_text<&report_t::loss, 1>},
    {"share_percent", percent<&report_t::share>, "SHARE", 8, percent_text<&report_t::share, 0>},
    {"window_bytes", sampled<&sample_t::window_bytes>},
    {"delivery_bytes_per_s", sampled<&sample_t::delivery_rate>},
    {"pacing_bytes_per_s", sampled<&sample_t::pacing_rate>},
    {"received_bytes", sampled<&sample_t::bytes_received>},
    {"sent_bytes", sampled<&sample_t::bytes_sent>},
    {"resent_bytes", sampled<&sample_t::bytes_resent>},
    {"received_packets", sampled<&sample_t::packets_received>},
    {"sent_packets", sampled<&sample_t::packets_sent>},
    {"lost_packets", sampled<&sample_t::packets_lost>},
};

}  // namespace

std::span<const path_column_t> path_columns() {
    return columns;
}

std::string with_unit(double value, const char* unit) {
    char text[64];
    const int decimals = value < 9.95 ? 2 : value < 99.5 ? 1 : 0;
    snprintf(text, sizeof(text), "%.*f %s", decimals, value, unit);
    return text;
}

std::string bit_rate(double bytes_a_second) {
    const double bits = bytes_a_second * 8;
    if (bits < 0.5) return "0";
    if (bits < 999.5) return std::to_string(std::lround(bits)) + " bit/s";
    if (bits < 999.5e3) return with_unit(bits / 1e3, "kbit/s");
    return bits < 999.5e6 ? with_unit(bits / 1e6, "Mbit/s") : with_unit(bits / 1e9, "Gbit/s");
}

}  // namespace tandem::app
