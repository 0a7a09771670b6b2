#include <ctime>

#include "app/json_line.h"
#include "app/watch_columns.h"
#include "app/watch_text.h"

namespace tandem::app {
namespace {

std::string utc(std::chrono::system_clock::time_point time) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    const time_t seconds = static_cast<time_t>(ms / 1000);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char date[64];
    char text[80];
    strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text, sizeof(text), "%s.%03dZ", date, static_cast<int>(ms % 1000));
    return text;
}

const char* name_of(congestion_t congestion) {
    switch (congestion) {
        case congestion_t::steady:
            return "steady";
        case congestion_t::growing:
            return "growing";
        case congestion_t::draining:
            return "draining";
        default:
            return "none";
    }
}

constexpr std::pair<const char*, uint64_t peer_path_t::*> peer_figures[] = {
    {"rtt_ms", &peer_path_t::rtt_ms},
    {"down_bytes_per_s", &peer_path_t::down_rate},
    {"up_bytes_per_s", &peer_path_t::up_rate},
    {"lost_packets_per_s", &peer_path_t::lost_rate},
    {"received_bytes", &peer_path_t::bytes_received},
    {"sent_bytes", &peer_path_t::bytes_sent},
    {"lost_packets", &peer_path_t::packets_lost},
};

// A path's name, its state and what `add_figures` adds.
void add_path(json_line_t& out, const auto& named, const auto& add_figures) {
    out.begin_object();
    out.add("name", named.name);
    out.add("state", named.state);
    add_figures();
    out.end_object();
}

void add_link(json_line_t& out, const link_report_t& link, watch_role_t role) {
    out.begin_object();
    out.add("number", link.sample.number);
    out.add("peer", link.sample.label);
    out.add("connected_s", link.age);
    out.add("down_bytes_per_s", link.down);
    out.add("up_bytes_per_s", link.up);
    out.add("loss_percent", link.loss * 100);
    out.add("queued_bytes", link.sample.bytes_queued);
    out.add("queued_trend_bytes_per_s", link.trend);
    out.add("congestion", name_of(link.congestion));
    out.begin_array("paths");
    for (const path_report_t& path : link.paths) {
        add_path(out, path.sample, [&] {
            for (const path_column_t& column : path_columns())
                out.add(column.key, column.value(path));
        });
    }
    out.end_array();
    if (role == watch_role_t::server) {
        out.begin_array("peer_paths");
        for (const peer_path_t& path : link.sample.peer_paths) {
            add_path(out, path, [&] {
                for (const auto& [key, figure] : peer_figures)
                    out.add(key, path.*figure);
            });
        }
        out.end_array();
    }
    out.end_object();
}

}  // namespace

std::string watch_json(const watch_report_t& report, watch_role_t role) {
    json_line_t out;
    out.add("time", utc(report.time));
    out.add("role", role == watch_role_t::client ? "client" : "server");
    out.add("connected", report.connected);
    out.add("left_out", report.left_out);
    out.add("down_bytes_per_s", report.down);
    out.add("up_bytes_per_s", report.up);
    out.begin_array("connections");
    for (const link_report_t& link : report.links)
        add_link(out, link, role);
    out.end_array();
    return out.take();
}

}  // namespace tandem::app
