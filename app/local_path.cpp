#include "app/local_path.h"

#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>

#include "app/file.h"
#include "common/address.h"

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
    sockaddr_storage address;
    bool is_name = false;
    if (t_get_address(name.c_str(), 0, &address, is_name, true) != 0 || is_name)
        return if_nametoindex(name.c_str()) != 0;
    const file_t probe(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return bind(probe.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

}  // namespace tandem::app
