#include "app/local_path.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "app/file.h"

namespace tandem::app {
namespace {

constexpr size_t longest_path = 127;  // what a path record can hold

}  // namespace

std::string path_fault(std::string_view path) {
    const bool plain = std::all_of(path.begin(), path.end(), [](char c) { return c > ' ' && c < 0x7f; });
    if (path.empty() || path.front() == ';' || path.size() > longest_path || !plain)
        return "give a local address or the name of an interface, for example 192.168.1.10 or eth0";
    const size_t options = path.find(';');
    if (options == std::string_view::npos) return "";
    const std::string_view option = path.substr(options + 1);
    if (option == "backup:yes" || option == "backup:no") return "";
    return "behind the name there may be ;backup:yes (or ;backup:no) and nothing else, for example wwan0;backup:yes";
}

std::string path_name(std::string_view path) {
    return std::string(path.substr(0, path.find(';')));
}

bool is_path_present(const std::string& name) {
    sockaddr_in6 address{};
    sockaddr_in ipv4{};
    if (inet_pton(AF_INET, name.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        std::memcpy(&address, &ipv4, sizeof(ipv4));
    } else if (inet_pton(AF_INET6, name.c_str(), &address.sin6_addr) == 1) {
        address.sin6_family = AF_INET6;
    } else {
        return if_nametoindex(name.c_str()) != 0;
    }
    const file_t probe(socket(address.sin6_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return bind(probe.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

}  // namespace tandem::app
