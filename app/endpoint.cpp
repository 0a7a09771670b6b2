#include "app/endpoint.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace tandem::app {
namespace {

constexpr size_t longest_host = 253;

bool is_numeric(int family, const std::string& host) {
    unsigned char address[sizeof(in6_addr)];
    return inet_pton(family, host.c_str(), address) == 1;
}

bool is_host_name(std::string_view host) {
    if (host.empty() || host.size() > longest_host || host.front() == '-' || host.front() == '.') return false;
    return std::all_of(host.begin(), host.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '.' ||
               c == '_';
    });
}

struct halves_t {
    std::string host;
    std::optional<std::string_view> port;
    bool bracketed = false;
};

// Splits at the colon that ends the host; brackets protect the colons of an IPv6 address.
std::optional<halves_t> split(std::string_view text) {
    halves_t halves;
    std::string_view rest;
    if (!text.empty() && text.front() == '[') {
        const size_t end = text.find(']');
        if (end == std::string_view::npos) return std::nullopt;
        halves.host = text.substr(1, end - 1);
        halves.bracketed = true;
        rest = text.substr(end + 1);
    } else {
        const size_t end = std::min(text.find(':'), text.size());
        halves.host = text.substr(0, end);
        rest = text.substr(end);
    }
    if (rest.empty()) return halves;
    if (rest.front() != ':') return std::nullopt;
    halves.port = rest.substr(1);
    return halves;
}

std::optional<endpoint_t> parse_listen(std::string_view text) {
    std::optional<halves_t> halves = split(text);
    if (!halves) return std::nullopt;
    if (!halves->port) {
        if (halves->bracketed) return std::nullopt;
        const auto port = parse_port(text, 0);
        return port ? std::optional(endpoint_t{"127.0.0.1", *port}) : std::nullopt;
    }
    if (!halves->bracketed && halves->host == "localhost") halves->host = "127.0.0.1";
    if (!halves->bracketed && halves->host == "*") halves->host = "0.0.0.0";
    const auto port = parse_port(*halves->port, 0);
    if (!port || !is_numeric(halves->bracketed ? AF_INET6 : AF_INET, halves->host)) return std::nullopt;
    return endpoint_t{halves->host, *port};
}

}  // namespace

std::string endpoint_t::text() const {
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::optional<uint16_t> parse_port(std::string_view text, uint16_t lowest) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port < lowest) return std::nullopt;
    return port;
}

std::optional<endpoint_t> parse_endpoint(std::string_view text, std::optional<uint16_t> default_port) {
    const std::optional<halves_t> halves = split(text);
    if (!halves) return std::nullopt;
    if (halves->bracketed ? !is_numeric(AF_INET6, halves->host) : !is_host_name(halves->host)) return std::nullopt;
    const auto port = halves->port ? parse_port(*halves->port) : default_port;
    if (!port) return std::nullopt;
    return endpoint_t{halves->host, *port};
}

std::optional<endpoint_t> parse_server_listen(std::string_view text) {
    if (const auto port = parse_port(text, 0)) return endpoint_t{"", *port};
    const std::optional<halves_t> halves = split(text);
    if (!halves || !halves->port) return std::nullopt;
    const auto port = parse_port(*halves->port, 0);
    const bool any = halves->host == "*";
    if (!port || !(any || is_numeric(halves->bracketed ? AF_INET6 : AF_INET, halves->host))) return std::nullopt;
    return endpoint_t{any && halves->bracketed ? "[*]" : halves->host, *port};
}

std::optional<tcp_forward_t> parse_tcp_forward(std::string_view text) {
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const auto listen = parse_listen(text.substr(0, equals));
    const auto target = parse_endpoint(text.substr(equals + 1));
    if (!listen || !target) return std::nullopt;
    return tcp_forward_t{*listen, *target};
}

}  // namespace tandem::app
