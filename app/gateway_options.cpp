#include "app/gateway_options.h"

#include <CLI/CLI.hpp>
#include <charconv>

#include "app/failure.h"
#include "gateway/target_rules.h"
#include "gateway/user_list.h"

namespace tandem::app {
namespace {

struct limit_name_t {
    const char* name;
    uint64_t share_t::*member;
};

constexpr limit_name_t limit_names[] = {{"streams", &share_t::streams},    {"connections", &share_t::instances},
                                        {"opening", &share_t::workers},    {"rate", &share_t::requests_per_second},
                                        {"queue", &share_t::queued_bytes}, {"links", &share_t::links}};
constexpr uint64_t largest_limit = uint64_t{1} << 40;

// The place of a limit's value; null for an unknown name.
uint64_t* find_limit(limits_t& limits, const std::string& name) {
    if (name == "strangers") return &limits.strangers;
    if (name == "source-strangers") return &limits.source_strangers;
    const std::string total = "total-";
    const bool of_all = name.starts_with(total);
    share_t& share = of_all ? limits.total : limits.client;
    for (const limit_name_t& known : limit_names) {
        if (name == (of_all ? total : "") + known.name) return &(share.*known.member);
    }
    return nullptr;
}

void read_limit(const std::string& text, limits_t& limits) {
    const size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const char* const begin = equals == std::string::npos ? end : text.data() + equals + 1;
    const auto [stop, error] = std::from_chars(begin, end, value);
    uint64_t* const place = find_limit(limits, name);
    const bool frame = name == "frame";
    if (error != std::errc() || stop != end || value == 0 || value > (frame ? UINT32_MAX : largest_limit) ||
        (place == nullptr && !frame)) {
        throw bad_value("--limit", text,
                        "write NAME=NUMBER, 1 to 1099511627776 (frame: 4294967295); names are frame, strangers, "
                        "source-strangers, links, streams, connections, opening, rate, queue, "
                        "and the last six with total- in front");
    }
    if (frame) {
        limits.frame_bytes = static_cast<uint32_t>(value);
    } else {
        *place = value;
    }
}

void read_reversed(const std::string& text, std::map<std::string, forwards_t>& out) {
    const size_t kind_end = text.find(':');
    const size_t equals = text.find('=');
    const std::string kind = text.substr(0, kind_end);
    const size_t client_end = equals == std::string::npos ? equals : text.find(':', equals);
    if ((kind == "tcp" || kind == "udp") && client_end != std::string::npos && kind_end < equals) {
        const std::string client = text.substr(equals + 1, client_end - equals - 1);
        const auto forward =
            parse_tcp_forward(text.substr(kind_end + 1, equals - kind_end) + text.substr(client_end + 1));
        if (forward && user_list_t::is_id(client)) {
            (kind == "tcp" ? out[client].tcp : out[client].udp).push_back(*forward);
            return;
        }
    }
    throw bad_value("--reverse", text,
                    "write tcp:[ADDR:]PORT=CLIENT:HOST:PORT or udp:..., for example tcp:2222=alice:127.0.0.1:22");
}

}  // namespace

void add_gateway_options(CLI::App& command, typed_gateway_t& typed) {
    command
        .add_option("--users", typed.users_file, "The clients that may connect (see tandem user); instead of --secret")
        ->type_name("FILE");
    command
        .add_option("--rules", typed.rules_file,
                    "What clients may reach: allow|deny CLIENT tcp|udp|* TARGET PORTS a line; the first that matches "
                    "decides, and nothing else is allowed. Read again when it changes")
        ->type_name("FILE");
    const auto repeated = [&](const char* name, std::vector<std::string>& values, const char* help, const char* type) {
        command.add_option(name, values, help)->expected(1)->take_all()->type_name(type);
    };
    repeated("--allow", typed.allowed, "One rule more that allows, before those of the file",
             "'CLIENT tcp|udp|* TARGET PORTS'");
    repeated("--reverse", typed.reversed, "Listen here, connect to HOST:PORT from the side of a client",
             "tcp|udp:[ADDR:]PORT=CLIENT:HOST:PORT");
    repeated(
        "--limit", typed.limits,
        "How much a client may have at once: links, streams, connections, opening, queue (bytes), rate (new ones a "
        "second); all clients: total-links and so on; frame (bytes); connections that are not authorised: "
        "strangers, and source-strangers from one IPv4 address or IPv6 /64",
        "NAME=NUMBER");
}

std::vector<std::string> checked_rules(const std::string& prefix, const std::vector<std::string>& texts,
                                       const char* form) {
    std::vector<std::string> lines;
    for (const std::string& text : texts) {
        target_rules_t probe(target_rules_t::without_rules_t::deny);
        const std::string line = prefix + text;
        if (!probe.add(line).empty() || probe.empty()) throw bad_value("--allow", text, std::string("write ") + form);
        lines.push_back(line);
    }
    return lines;
}

gateway_settings_t checked_gateway(const typed_gateway_t& typed) {
    gateway_settings_t out;
    out.users_file = typed.users_file;
    out.rules_file = typed.rules_file;
    out.rules =
        checked_rules("allow ", typed.allowed, "'CLIENT tcp|udp|* TARGET PORTS', for example 'alice tcp 127.0.0.1 80'");
    for (const std::string& text : typed.reversed)
        read_reversed(text, out.reversed);
    for (const std::string& text : typed.limits)
        read_limit(text, out.limits);
    return out;
}

}  // namespace tandem::app
