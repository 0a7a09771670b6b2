#include "platform/tndm/endpoint/link_table.h"

#include <algorithm>
#include <cstring>

namespace tndm {

namespace {

constexpr std::array<uint8_t, 12> mapped_prefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

}  // namespace

std::optional<link_table::host> link_table::host_of(const endpoint& address) {
    host made{};
    if (address.empty() || address.is_link_local()) {
        return std::nullopt;
    }
    if (address.family() == AF_INET) {
        std::copy(mapped_prefix.begin(), mapped_prefix.end(), made.begin());
        std::memcpy(made.data() + mapped_prefix.size(), &address.ip4.sin_addr, sizeof address.ip4.sin_addr);
    } else {
        std::memcpy(made.data(), &address.ip6.sin6_addr, made.size());
    }
    return made;
}

bool link_table::is_ipv4(const host& address) {
    return std::equal(mapped_prefix.begin(), mapped_prefix.end(), address.begin());
}

void link_table::watch(const std::string& name) {
    watched_[name] = look(name, {});
}

presence link_table::of(const std::string& name) const {
    const auto found = watched_.find(name);
    return found == watched_.end() ? presence::unknown : found->second.state;
}

// An address that was never listed may be usable all the same (a whole network can be local), and an interface may do
// without one of its own; but what has had one and lost it is gone.
link_table::footing link_table::look(const std::string& name, const footing& before) const {
    footing now{presence::unknown, 0, before.had_address};
    const auto address = host_of(endpoint::parse(name, 0).value_or(endpoint()));
    const bool of_a_link = !address && name.find(':') != std::string::npos;
    if (!complete_ || of_a_link) {
        return now;
    }
    const auto found = std::find_if(links_.begin(), links_.end(), [&](const auto& entry) {
        return address ? entry.second.addresses.count(*address) != 0 : entry.second.name == name;
    });
    if (found == links_.end()) {
        now.state = address && !before.had_address ? presence::unknown : presence::gone;
        return now;
    }
    const interface& on = found->second;
    now.index = found->first;
    now.had_address = before.had_address || !on.addresses.empty();
    if (!on.up || (on.addresses.empty() && now.had_address)) {
        now.state = presence::gone;
    } else if (!on.addresses.empty()) {
        now.state = presence::there;
    }
    return now;
}

void link_table::review() {
    if (dumping_) {
        return;
    }
    for (auto& [name, before] : watched_) {
        const footing now = look(name, before);
        const bool other_interface = before.index != 0 && now.index != 0 && before.index != now.index;
        if ((now.state == presence::gone && before.state != presence::gone) || other_interface) {
            changes_.push_back({name, change::kind::went});
        }
        if (now.state != presence::gone && (now.state != before.state || other_interface)) {
            changes_.push_back({name, change::kind::came});
        }
        before = now;
    }
}

void link_table::lost_address(const interface& of, const host& address) {
    if (!of.addresses.empty() && watched_.count(of.name) != 0) {
        const bool last = std::none_of(of.addresses.begin(), of.addresses.end(),
                                       [&](const host& other) { return is_ipv4(other) == is_ipv4(address); });
        changes_.push_back({of.name, change::kind::moved, address, last});
    }
}

void link_table::link(int index, const std::string& name, bool up) {
    interface& told = links_[index];
    told.name = name;
    told.up = up;
    told.seen = true;
    review();
}

void link_table::link_deleted(int index) {
    links_.erase(index);
    review();
}

void link_table::address(int index, const host& address) {
    interface& told = links_[index];
    told.addresses.insert(address);
    told.seen_addresses.insert(address);
    review();
}

void link_table::address_deleted(int index, const host& address) {
    const auto found = links_.find(index);
    if (found != links_.end() && found->second.addresses.erase(address) != 0) {
        found->second.seen_addresses.erase(address);
        lost_address(found->second, address);
        review();
    }
}

void link_table::route(int index) {
    for (const auto& [name, on] : watched_) {
        if (on.index == index && on.state != presence::gone) {
            changes_.push_back({name, change::kind::routed});
        }
    }
}

void link_table::begin_dump() {
    dumping_ = true;
    for (auto& [index, each] : links_) {
        each.seen = false;
        each.seen_addresses.clear();
    }
}

void link_table::end_dump() {
    std::erase_if(links_, [](const auto& entry) { return !entry.second.seen; });
    for (auto& [index, each] : links_) {
        const auto lost = std::exchange(each.addresses, each.seen_addresses);
        for (const host& address : lost) {
            if (each.addresses.count(address) == 0) {
                lost_address(each, address);
            }
        }
    }
    complete_ = true;
    dumping_ = false;
    review();
}

}  // namespace tndm
