#include "platform/tndm/endpoint/resolver.h"

#include <netdb.h>

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

namespace tndm {

namespace {

resolver::answer look_up(const std::string& host, uint16_t port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (error != 0 || list == nullptr) {
        return {{}, "the name " + host + " does not resolve: " + (error == 0 ? "no address" : gai_strerror(error))};
    }
    resolver::answer result;
    for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
        endpoint address(each->ai_addr, each->ai_addrlen);
        const bool first = std::none_of(result.found.begin(), result.found.end(),
                                        [&](const endpoint& of) { return of.family() == address.family(); });
        if (!address.empty() && first) {
            address.set_port(port);
            result.found.push_back(address);
        }
    }
    freeaddrinfo(list);
    if (result.found.empty()) {
        result.error = "the name " + host + " has no address that can be used";
    }
    return result;
}

}  // namespace

void resolver::start(const std::string& host, uint16_t port) {
    if (busy_) {
        return;
    }
    busy_ = true;
    current_ = std::make_shared<shared>();
    const auto tell = [](mailbox& box) { box.post({.what = command::kind::resolved}); };
    if (const auto numeric = endpoint::parse(host, port)) {
        current_->result.found = {numeric->unmapped()};
        tell(*commands_);
        return;
    }
    try {
        std::thread([answer = current_, box = commands_, host, port, tell] {
            auto result = look_up(host, port);
            {
                const std::lock_guard lock(answer->mutex);
                answer->result = std::move(result);
            }
            tell(*box);
        }).detach();
    } catch (const std::system_error& error) {
        current_->result.error = std::string("no thread to look a name up: ") + error.what();
        tell(*commands_);
    }
}

resolver::answer resolver::take() {
    busy_ = false;
    const std::lock_guard lock(current_->mutex);
    return std::exchange(current_->result, {});
}

}  // namespace tndm
