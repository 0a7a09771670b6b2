#ifndef TANDEM_APP_ENDPOINT_H
#define TANDEM_APP_ENDPOINT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tandem::app {

// A host (name or numeric address, IPv6 without its brackets) and a port.
struct endpoint_t {
    std::string host;
    uint16_t port = 0;

    bool operator==(const endpoint_t&) const = default;
    // host:port, with brackets around an IPv6 address.
    std::string text() const;
};

// A decimal port between `lowest` and 65535.
std::optional<uint16_t> parse_port(std::string_view text, uint16_t lowest = 1);

// HOST:PORT, [V6]:PORT, and with a default port also HOST and [V6] alone. A bare IPv6 address is not accepted: its last
// group would read as a port.
std::optional<endpoint_t> parse_endpoint(std::string_view text, std::optional<uint16_t> default_port = std::nullopt);

// Where a server listens: PORT for every address of both families (`host` is empty), *:PORT for those of IPv4, [*]:PORT
// (`host` is "[*]") like PORT alone, ADDR:PORT and [V6]:PORT. Port 0 lets the system choose.
std::optional<endpoint_t> parse_server_listen(std::string_view text);

// One TCP forward: where the client listens, and what the server connects to for every connection accepted there.
struct tcp_forward_t {
    endpoint_t listen;  // a numeric address; port 0 lets the system choose
    endpoint_t target;
};

// [ADDR:]PORT=HOST:PORT. ADDR is a numeric address, "localhost", or "*" for every IPv4 address; without it the forward
// listens on 127.0.0.1.
std::optional<tcp_forward_t> parse_tcp_forward(std::string_view text);

}  // namespace tandem::app

#endif  // TANDEM_APP_ENDPOINT_H
