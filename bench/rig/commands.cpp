#include "bench/rig/commands.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <vector>

#include "bench/rig/units.h"

namespace rig {

namespace {

using words = std::vector<std::string_view>;

words split(std::string_view line) {
    words found;
    constexpr std::string_view blank = " \t\r";
    for (size_t start = line.find_first_not_of(blank); start != std::string_view::npos;) {
        const size_t end = std::min(line.find_first_of(blank, start), line.size());
        found.push_back(line.substr(start, end - start));
        start = line.find_first_not_of(blank, end);
    }
    return found;
}

bool parse_switch(std::string_view text) {
    if (text == "on") return true;
    if (text == "off") return false;
    throw std::invalid_argument("neither on nor off: '" + std::string(text) + "'");
}

link& named(links& existing, std::string_view number) {
    const uint64_t index = parse_count(number);
    if (index >= existing.all.size()) throw std::invalid_argument("no such link: " + std::string(number));
    return existing.all[index];
}

std::string add(links& existing, const words& line) {
    if (line.size() != 5) throw std::invalid_argument("usage: add NETWORK DEVICE NETWORK DEVICE");
    tun near_end{std::string(line[1]), std::string(line[2])};
    tun far_end{std::string(line[3]), std::string(line[4])};
    existing.all.emplace_back(existing.pool, std::move(near_end), std::move(far_end));
    return "ok " + std::to_string(existing.all.size() - 1);
}

void change(pipe::settings& settings, std::string_view what, std::string_view value) {
    if (what == "rate") {
        settings.bits_per_second = parse_rate(value);
    } else if (what == "delay") {
        settings.delay = parse_time(value);
    } else if (what == "loss") {
        settings.loss = parse_share(value);
    } else if (what == "queue") {
        settings.queue_bytes = parse_bytes(value);
    } else if (what == "dark") {
        settings.dark = parse_switch(value);
    } else {
        throw std::invalid_argument("unknown command: '" + std::string(what) + "'");
    }
}

std::string set(links& existing, const words& line) {
    if (line.size() < 3 || line.size() > 4) {
        throw std::invalid_argument(
            "neither add, seed nor stats, nor rate, delay, loss, queue or dark with LINK VALUE [up|down]");
    }
    if (line.size() == 4 && line[3] != "up" && line[3] != "down") throw std::invalid_argument("neither up nor down");
    link& chosen = named(existing, line[1]);
    for (const auto which : {link::up, link::down}) {
        if (line.size() == 4 && (line[3] == "up") != (which == link::up)) continue;
        pipe& changed = chosen.towards(which);
        pipe::settings wanted = changed.now_set();
        change(wanted, line[0], line[2]);
        changed.set(wanted, clock_now());
    }
    return "ok";
}

std::string seed(links& existing, const words& line) {
    if (line.size() != 3) throw std::invalid_argument("usage: seed LINK NUMBER");
    const uint64_t value = parse_count(line[2]);
    link& chosen = named(existing, line[1]);
    // The two directions must not lose in step.
    chosen.towards(link::up).seed(2 * value);
    chosen.towards(link::down).seed(2 * value + 1);
    return "ok";
}

std::string stats(links& existing) {
    std::string text;
    for (link& each : existing.all)
        text += (text.empty() ? "" : ", ") + each.statistics();
    return "ok [" + text + "]";
}

}  // namespace

std::string carry_out(links& existing, std::string_view line) {
    try {
        const words parts = split(line);
        if (parts.empty()) throw std::invalid_argument("empty command");
        if (parts[0] == "add") return add(existing, parts);
        if (parts[0] == "seed") return seed(existing, parts);
        if (parts[0] == "stats" && parts.size() == 1) return stats(existing);
        return set(existing, parts);
    } catch (const std::exception& error) {
        return "error: " + std::string(error.what());
    }
}

}  // namespace rig
