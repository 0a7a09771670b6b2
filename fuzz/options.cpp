// Every text that somebody writes: options of an interface, addresses, whom to trust, paths, rules.
#include <optional>

#include "common/address.h"
#include "forward/advanced_connection_context.h"
#include "fuzz/input.h"
#include "gateway/ip_network.h"
#include "gateway/vpn_rules.h"
#include "platform/tndm/endpoint/path_spec.h"
#include "platform/tndm/quic/credentials.h"
#include "platform/tndm/udp/address.h"
#include "tests/fake/fake_platform.h"

namespace {

using fuzz::require;

void read_if_options(const std::string& text) {
    static auto* const loop = new fake::loop_t;
    static auto* const context = new tandem::advanced_connection_context_t(loop->handle(), "", "", "", "");
    std::multimap<std::string, std::string> options;
    require(context->parse_if_options(text, options) == static_cast<int>(options.size()), "entries are counted");
    size_t bytes = 0;
    for (const auto& [key, value] : options) {
        require(!key.empty() && key.find_first_of(": \t\r\n") == std::string::npos, "a key is one word");
        bytes += key.size() + value.size() + 1;
    }
    require(bytes <= text.size(), "options are made of the text's own characters");
}

void read_address(const std::string& text, uint16_t port) {
    sockaddr_storage address{};
    bool is_name = false;
    if (t_get_address(text.c_str(), port, &address, is_name, true) != 0 || is_name) return;
    char small[24];
    char large[128];
    t_format_sockaddr_with_port(&address, small, sizeof(small));
    uint16_t told = 0;
    require(t_format_sockaddr(&address, large, sizeof(large), &told) == 1, "what was read can be written");
    require(told == port, "the port stays");
    sockaddr_storage again{};
    require(t_get_address(large, port, &again, is_name, true) == 0 && !is_name, "what was written can be read");
}

void read_endpoint(const std::string& text, uint16_t port) {
    const auto read = tndm::endpoint::parse(text, port);
    if (!read) return;
    require(read->port() == port && !read->text().empty(), "an endpoint keeps its port");
    const auto again = tndm::endpoint::parse(read->host_text(), port);
    require(again && *again == *read, "an endpoint that was written can be read");
}

void read_path(const std::string& text) {
    std::string error;
    const auto path = tndm::path_spec::parse(text, error);
    require(path.has_value() == error.empty(), "a text that is no path is told why");
    require(error.find('\n') == std::string::npos, "an error is one line");
    if (path) require(tndm::path_spec::name_of(path->text) == path->name, "a path has one name");
}

void read_trust(std::string text) {
    // Its files could be anything on this machine.
    std::erase(text, '/');
    std::string error;
    const auto trust = tndm::trust::parse(text, "server.test", error);
    require(trust.has_value() == error.empty(), "a text that names no trust is told why");
    require(error.find('\n') == std::string::npos, "an error is one line");
    if (trust) require(!(trust->insecure() && trust->needs_authorities()), "nobody is asked about anybody");
}

void read_network(const std::string& text) {
    const auto network = tandem::ip_network_t::parse(text);
    if (!network) return;
    require(network->prefix <= network->bits() && network->contains(*network), "a network holds itself");
    require(network->base().contains(*network) && network->contains(network->base()),
            "and is what it is without hosts");
    const auto again = tandem::ip_network_t::parse(network->text());
    require(again && again->contains(*network) && network->contains(*again), "a network that was written can be read");
}

// Lines of rules; behind an empty line what a client asks for: `CLIENT OPTION VALUE`.
void read_rules(const std::string& text) {
    tandem::vpn_rules_t rules;
    size_t at = 0;
    const auto word = [&](char end) {
        const size_t stop = std::min(text.find(end, at), text.size());
        std::string found = text.substr(at, stop - at);
        at = std::min(stop + 1, text.size());
        return found;
    };
    while (at < text.size()) {
        const std::string line = word('\n');
        if (line.empty()) break;
        require(rules.add(line).find('\n') == std::string::npos, "an error is one line");
    }
    while (at < text.size()) {
        const std::string client = word(' ');
        const std::string option = word(' ');
        const bool allowed = rules.allows_vpn_option(client, option, word('\n'));
        require(!allowed || !rules.empty(), "without a rule nothing is allowed");
        require(!allowed || (option != "up" && option != "down"), "no rule allows a command");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::be_quiet();
    fuzz::input in(data, size);
    const uint32_t kind = in.below(7);
    const std::string text = fuzz::input::as_text(in.rest());
    switch (kind) {
        case 0:
            read_if_options(text);
            break;
        case 1:
            read_address(text, static_cast<uint16_t>(text.size() * 257));
            break;
        case 2:
            read_endpoint(text, static_cast<uint16_t>(text.size() * 257));
            break;
        case 3:
            read_path(text);
            break;
        case 4:
            read_trust(text);
            break;
        case 5:
            read_network(text);
            break;
        default:
            read_rules(text);
    }
    return 0;
}
