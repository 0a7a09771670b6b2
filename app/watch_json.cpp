#include <ctime>

#include "app/json_line.h"
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

void add_path(json_line_t& out, const path_report_t& path) {
    const path_sample_t& now = path.sample;
    out.begin_object();
    out.add("name", now.name);
    out.add("state", now.state);
    out.add("rtt_ms", static_cast<double>(now.rtt_us) / 1000);
    out.add("down_bytes_per_s", path.down);
    out.add("up_bytes_per_s", path.up);
    out.add("loss_percent", path.loss * 100);
    out.add("share_percent", path.share * 100);
    out.add("window_bytes", now.window_bytes);
    out.add("delivery_bytes_per_s", now.delivery_rate);
    out.add("pacing_bytes_per_s", now.pacing_rate);
    out.add("received_bytes", now.bytes_received);
    out.add("sent_bytes", now.bytes_sent);
    out.add("resent_bytes", now.bytes_resent);
    out.add("received_packets", now.packets_received);
    out.add("sent_packets", now.packets_sent);
    out.add("lost_packets", now.packets_lost);
    out.end_object();
}

void add_peer_path(json_line_t& out, const peer_path_t& path) {
    out.begin_object();
    out.add("name", path.name);
    out.add("state", path.state);
    out.add("rtt_ms", path.rtt_ms);
    out.add("down_bytes_per_s", path.down_rate);
    out.add("up_bytes_per_s", path.up_rate);
    out.add("lost_packets_per_s", path.lost_rate);
    out.add("received_bytes", path.bytes_received);
    out.add("sent_bytes", path.bytes_sent);
    out.add("lost_packets", path.packets_lost);
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
    for (const path_report_t& path : link.paths)
        add_path(out, path);
    out.end_array();
    if (role == watch_role_t::server) {
        out.begin_array("peer_paths");
        for (const peer_path_t& path : link.sample.peer_paths)
            add_peer_path(out, path);
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
