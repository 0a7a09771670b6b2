#ifndef TANDEM_APP_FORWARD_OPTIONS_H
#define TANDEM_APP_FORWARD_OPTIONS_H

#include <string>
#include <vector>

#include "app/endpoint.h"
#include "app/vpn_settings.h"

namespace CLI {
class App;
}

namespace tandem::app {

// What a client forwards.
struct forwards_t {
    std::vector<tcp_forward_t> tcp;
    std::vector<tcp_forward_t> udp;
    std::vector<vpn_forward_t> vpn;
};

// The same as it was typed.
struct typed_forwards_t {
    std::vector<std::string> tcp;
    std::vector<std::string> udp;
    std::vector<std::string> vpn;
};

void add_forward_options(CLI::App& command, typed_forwards_t& typed);
// Throws failure_t (exit code 2).
forwards_t checked_forwards(const typed_forwards_t& typed, bool needs_one = true);

// The addresses that a host has just now, as texts; resolving a name may block. None when it does not resolve.
std::vector<std::string> numeric_addresses(const std::string& host);
// What is wrong when traffic to the numeric address `server` would go into the tunnels: paths that are addresses would
// be led there with it, while one that is an interface is bound to it. Empty when all is well.
std::string swallowed_server(const forwards_t& forwards, const std::string& server,
                             const std::vector<std::string>& path_names);

}  // namespace tandem::app

#endif  // TANDEM_APP_FORWARD_OPTIONS_H
