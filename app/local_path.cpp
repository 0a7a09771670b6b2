#include "app/local_path.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include "app/file.h"

namespace tandem::app {

bool is_path_present(const std::string& path) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (inet_pton(AF_INET, path.c_str(), &address.sin_addr) != 1) return if_nametoindex(path.c_str()) != 0;
    const file_t probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return bind(probe.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

}  // namespace tandem::app
