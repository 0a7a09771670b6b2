#include "gateway/ip_network.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace tandem {

std::optional<ip_network_t> ip_network_t::parse(const std::string& text) {
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    ip_network_t network;
    for (const int family : {AF_INET, AF_INET6}) {
        if (inet_pton(family, address.c_str(), network.address.data()) == 1) network.family = family;
    }
    // A text with a zero in it would be read up to there.
    if (network.family == 0 || text.find('\0') != std::string::npos) return std::nullopt;
    network.prefix = network.bits();
    if (slash == std::string::npos) return network;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, network.prefix);
    if (error != std::errc() || stop != end || network.prefix > network.bits()) return std::nullopt;
    return network;
}

unsigned ip_network_t::bits() const {
    return family == AF_INET ? 32 : 128;
}

ip_network_t ip_network_t::base() const {
    ip_network_t out = *this;
    for (unsigned bit = prefix; bit < bits(); ++bit) {
        out.address[bit / 8] = static_cast<uint8_t>(out.address[bit / 8] & ~(0x80u >> bit % 8));
    }
    return out;
}

bool ip_network_t::contains(const ip_network_t& other) const {
    if (family != other.family || prefix > other.prefix) return false;
    ip_network_t cut = other;
    cut.prefix = prefix;
    return cut.base().address == base().address;
}

std::string ip_network_t::text() const {
    char buffer[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address.data(), buffer, sizeof(buffer));
    return prefix == bits() ? std::string(buffer) : std::string(buffer) + "/" + std::to_string(prefix);
}

}  // namespace tandem
