// What the kernel says about interfaces and addresses, and what that means for paths.
//
// No socket and no clock: whoever reads netlink tells what it read, in the kernel's order, and takes the changes. An
// interface that goes and comes back between two looks gives both changes.
#ifndef TANDEM_PLATFORM_TNDM_ENDPOINT_LINK_TABLE_H
#define TANDEM_PLATFORM_TNDM_ENDPOINT_LINK_TABLE_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/tndm/udp/address.h"

namespace tndm {

enum class presence {
    unknown,  // the kernel's tables do not tell: to be tried
    there,
    gone,  // its interface or address is away: trying is useless
};

class link_table {
  public:
    // Network byte order; an IPv4 address in its IPv6-mapped form.
    using host = std::array<uint8_t, 16>;
    // Nothing for what is no path's address: nothing, or one of a link.
    static std::optional<host> host_of(const endpoint& address);
    static bool is_ipv4(const host& address);

    struct change {
        enum class kind {
            went,    // what the path had open is dead
            came,    // it may be tried at once
            moved,   // its interface has lost one address and has others: what was bound to `address` is dead, and
                     // everything of that family when it was the `last` of its family
            routed,  // there is a new way out over its interface: a first packet may have been refused before
        };
        std::string name;
        kind what;
        host address{};
        bool last = false;
        bool operator==(const change&) const = default;
    };

    // --- paths: the name of an interface or a local address; those of a link are never known ---
    void watch(const std::string& name);
    void forget(const std::string& name) { watched_.erase(name); }
    presence of(const std::string& name) const;
    std::vector<change> take_changes() { return std::exchange(changes_, {}); }

    // --- what the kernel tells ---
    // `up`: administratively up and with a carrier.
    void link(int index, const std::string& name, bool up);
    void link_deleted(int index);
    // Usable ones.
    void address(int index, const host& address);
    void address_deleted(int index, const host& address);
    void route(int index);
    // Between these two everything that exists is told; what is not, has gone unheard.
    void begin_dump();
    void end_dump();

  private:
    struct interface {
        std::string name;
        bool up = false;
        std::set<host> addresses;
        bool seen = false;  // during a dump
        std::set<host> seen_addresses;
    };
    // What a watched path stands on.
    struct footing {
        presence state = presence::unknown;
        int index = 0;             // the interface
        bool had_address = false;  // ever, so that having none means something
    };
    footing look(const std::string& name, const footing& before) const;
    void review();
    void lost_address(const interface& of, const host& address);

    std::map<int, interface> links_;
    std::map<std::string, footing> watched_;
    std::vector<change> changes_;
    bool complete_ = false;  // a dump has ended: what is not listed does not exist
    bool dumping_ = false;
};

}  // namespace tndm

#endif
