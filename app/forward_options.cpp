#include "app/forward_options.h"

#include <netdb.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "app/failure.h"

namespace tandem::app {
namespace {

std::vector<tcp_forward_t> checked_ports(const std::vector<std::string>& texts, const char* option,
                                         const char* example) {
    std::vector<tcp_forward_t> out;
    for (const std::string& text : texts) {
        const auto forward = parse_tcp_forward(text);
        if (!forward) throw bad_value(option, text, std::string("write [ADDR:]PORT=HOST:PORT, for example ") + example);
        out.push_back(*forward);
    }
    return out;
}

}  // namespace

void add_forward_options(CLI::App& command, typed_forwards_t& typed) {
    const auto repeated = [&](const char* name, std::vector<std::string>& values, const char* help, const char* type) {
        command.add_option(name, values, help)->expected(1)->take_all()->type_name(type);
    };
    repeated("--tcp", typed.tcp, "Listen on [ADDR:]PORT here, connect to HOST:PORT from the server",
             "[ADDR:]PORT=HOST:PORT");
    repeated("--udp", typed.udp, "Take datagrams on [ADDR:]PORT here, send them to HOST:PORT from the server",
             "[ADDR:]PORT=HOST:PORT");
    repeated(
        "--vpn", typed.vpn,
        "An interface here and one at the server, joined: tun:NAME (or tap:NAME), then address, peer, mtu, route, up "
        "and down; remote:'...' has the server's",
        "tun:NAME;OPTION:VALUE;...");
}

forwards_t checked_forwards(const typed_forwards_t& typed, bool needs_one) {
    if (needs_one && typed.tcp.empty() && typed.udp.empty() && typed.vpn.empty())
        throw failure_t("nothing to forward: give --tcp, --udp, --vpn or --allow; see tandem client --help",
                        exit_usage);
    forwards_t out;
    out.tcp = checked_ports(typed.tcp, "--tcp", "8080=127.0.0.1:80");
    out.udp = checked_ports(typed.udp, "--udp", "5353=9.9.9.9:53");
    for (const std::string& text : typed.vpn) {
        vpn_forward_t forward;
        if (const std::string fault = parse_vpn_forward(text, forward); !fault.empty())
            throw bad_value("--vpn", text, fault);
        out.vpn.push_back(std::move(forward));
    }
    return out;
}

std::vector<std::string> numeric_addresses(const std::string& host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    std::vector<std::string> out;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return out;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        char text[NI_MAXHOST] = "";
        if (getnameinfo(one->ai_addr, one->ai_addrlen, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) == 0)
            out.emplace_back(text);
    }
    freeaddrinfo(found);
    return out;
}

std::string swallowed_server(const forwards_t& forwards, const std::string& server,
                             const std::vector<std::string>& path_names) {
    const auto address = ip_network_t::parse(server);
    const auto loose = std::find_if(path_names.begin(), path_names.end(),
                                    [](const std::string& name) { return ip_network_t::parse(name).has_value(); });
    if (!address || loose == path_names.end()) return {};
    for (const vpn_forward_t& forward : forwards.vpn) {
        for (const vpn_route_t& route : forward.local.routes) {
            if (!route.to.contains(*address)) continue;
            return "route " + route.to.text() + " would lead the link's own packets to " + server +
                   " into the tunnel; give --path the interface that has " + *loose + ", or a narrower route";
        }
    }
    return {};
}

}  // namespace tandem::app
