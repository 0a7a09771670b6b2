#include "gateway/strangers.h"

#include <arpa/inet.h>

#include <algorithm>

#include "gateway/ip_network.h"

namespace tandem {

std::shared_ptr<void> strangers_t::take_place(const std::string& source) {
    const auto known = taken_->by_source.find(source);
    if (taken_->all >= most_ || (known != taken_->by_source.end() && known->second >= most_of_source_)) return nullptr;
    ++taken_->all;
    ++taken_->by_source[source];
    return {static_cast<void*>(taken_.get()), [taken = taken_, source](void*) {
                --taken->all;
                const auto found = taken->by_source.find(source);
                if (--found->second == 0) taken->by_source.erase(found);
            }};
}

std::string source_of(std::string address) {
    address.resize(std::min(address.find('%'), address.size()));
    auto network = ip_network_t::parse(address);
    if (!network || network->family != AF_INET6) return address;
    const ip_network_t mapped = *ip_network_t::parse("::ffff:0:0/96");
    if (mapped.contains(*network)) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, network->address.data() + 12, text, sizeof(text));
        return text;
    }
    network->prefix = 64;
    return network->base().text();
}

}  // namespace tandem
