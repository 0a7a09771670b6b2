#include <algorithm>
#include <cstdio>

#include "app/failure.h"
#include "app/watch_columns.h"
#include "app/watch_text.h"

namespace tandem::app {
namespace {

constexpr size_t longest_name = 24;
constexpr size_t longest_label = 40;
constexpr size_t state_width = 10;

std::string byte_count(uint64_t bytes) {
    const double value = static_cast<double>(bytes);
    if (bytes < 1000) return std::to_string(bytes) + " B";
    return value < 999.5e3 ? with_unit(value / 1e3, "kB") : with_unit(value / 1e6, "MB");
}

std::string duration(double seconds) {
    const auto whole = static_cast<uint64_t>(seconds);
    char text[64];
    if (whole >= 86400) {
        snprintf(text, sizeof(text), "%u d %u h", unsigned(whole / 86400), unsigned(whole / 3600 % 24));
    } else if (whole >= 3600) {
        snprintf(text, sizeof(text), "%u h %u min", unsigned(whole / 3600), unsigned(whole / 60 % 60));
    } else if (whole >= 60) {
        snprintf(text, sizeof(text), "%u min %u s", unsigned(whole / 60), unsigned(whole % 60));
    } else {
        snprintf(text, sizeof(text), "%u s", unsigned(whole));
    }
    return text;
}

std::string queue_text(const link_report_t& link) {
    std::string text = "queued " + byte_count(link.sample.bytes_queued);
    switch (link.congestion) {
        case congestion_t::growing:
            return text + ", growing by " + bit_rate(link.trend);
        case congestion_t::draining:
            return text + ", draining";
        case congestion_t::steady:
            return text + ", steady";
        default:
            return text;
    }
}

std::string shortened(const std::string& text, size_t limit) {
    std::string shown = printable(text, limit + 1);
    if (text.size() > limit) {
        shown.resize(limit);
        shown.back() = '~';
    }
    return shown.empty() ? "-" : shown;
}

std::string peer_state(const link_report_t& link, const std::string& name) {
    const auto& all = link.sample.peer_paths;
    const auto found = std::find_if(all.begin(), all.end(), [&](const peer_path_t& each) { return each.name == name; });
    return found == all.end() ? "-" : shortened(found->state, state_width);
}

// A cell and the space before it; a negative width: from the left.
void add_cell(std::string& out, const std::string& text, int width) {
    char cell[128];
    snprintf(cell, sizeof(cell), "%*s", width, text.c_str());
    out += cell;
}

void add_row(std::string& out, const link_report_t& link, const path_report_t& path, int name_width, bool with_peer) {
    add_cell(out, "  " + shortened(path.sample.name, longest_name), -name_width - 2);
    add_cell(out, "  " + shortened(path.sample.state, state_width), -12);
    if (with_peer) add_cell(out, "  " + peer_state(link, path.sample.name), -13);
    for (const path_column_t& column : path_columns())
        if (column.heading != nullptr) add_cell(out, column.text(path), column.width);
    out += '\n';
}

void add_link(std::string& out, const link_report_t& link, watch_role_t role) {
    const bool server = role == watch_role_t::server;
    if (server) out += "client " + std::to_string(link.sample.number) + " ";
    out += shortened(link.sample.label, longest_label) + ": connected " + duration(link.age) + ", down " +
           bit_rate(link.down) + ", up " + bit_rate(link.up) + ", " + queue_text(link) + "\n";
    size_t longest = 4;
    for (const path_report_t& path : link.paths)
        longest = std::max(longest, std::min(path.sample.name.size(), longest_name));
    const int width = static_cast<int>(longest);
    add_cell(out, "  PATH", -width - 2);
    add_cell(out, "  STATE", -12);
    if (server) add_cell(out, "  AT CLIENT", -13);
    for (const path_column_t& column : path_columns())
        if (column.heading != nullptr) add_cell(out, column.heading, column.width);
    out += '\n';
    for (const path_report_t& path : link.paths)
        add_row(out, link, path, width, server);
}

}  // namespace

std::string watch_table(const watch_report_t& report, watch_role_t role) {
    std::string out;
    if (role == watch_role_t::server) {
        out += std::to_string(report.connected) + (report.connected == 1 ? " client" : " clients") + ", down " +
               bit_rate(report.down) + ", up " + bit_rate(report.up);
        if (report.left_out != 0) out += "; the busiest " + std::to_string(report.links.size()) + " are shown";
        if (report.left_out != 0) out += ", " + std::to_string(report.left_out) + " left out";
        out += '\n';
    } else if (report.links.empty()) {
        out += "not connected\n";
    }
    for (const link_report_t& link : report.links)
        add_link(out, link, role);
    return out;
}

}  // namespace tandem::app
