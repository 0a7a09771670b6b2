#include "tests/e2e/udp_proxy.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace tandem::test {
namespace {

constexpr size_t largest = 65536;
constexpr size_t kept = 64;  // the first datagrams (handshakes) stay, later ones replace each other behind them
constexpr size_t kept_first = 16;
constexpr unsigned forged_one_in = 4;

app::file_t open_udp(in_addr_t address) {
    app::file_t file(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = address;
    const int bytes = 4 << 20;
    setsockopt(file.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes));
    if (bind(file.fd(), reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0)
        throw std::runtime_error("no UDP socket");
    return file;
}

}  // namespace

udp_proxy_t::udp_proxy_t(uint16_t server_port)
    : front_(open_udp(htonl(INADDR_LOOPBACK))), stop_(eventfd(0, EFD_CLOEXEC)) {
    server_.sin_family = AF_INET;
    server_.sin_port = htons(server_port);
    server_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in own{};
    socklen_t length = sizeof(own);
    getsockname(front_.fd(), reinterpret_cast<sockaddr*>(&own), &length);
    port_ = ntohs(own.sin_port);
    thread_ = std::thread([this] { run(); });
}

udp_proxy_t::~udp_proxy_t() {
    eventfd_write(stop_.fd(), 1);
    thread_.join();
}

void udp_proxy_t::run() {
    for (;;) {
        std::vector<pollfd> waiting = {{stop_.fd(), POLLIN, 0}, {front_.fd(), POLLIN, 0}};
        std::vector<flow_t*> order;
        for (auto& [key, flow] : flows_) {
            waiting.push_back({flow.upstream.fd(), POLLIN, 0});
            order.push_back(&flow);
        }
        poll(waiting.data(), waiting.size(), -1);
        if (waiting[0].revents != 0) return;
        for (size_t i = 0; i < order.size(); ++i) {
            if (waiting[i + 2].revents != 0) from_server(*order[i]);
        }
        if (waiting[1].revents != 0) from_client();
    }
}

void udp_proxy_t::from_client() {
    datagram_t datagram(largest);
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    const ssize_t got =
        recvfrom(front_.fd(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (got < 0) return;
    datagram.resize(static_cast<size_t>(got));
    flow_t& flow = flows_[uint64_t{from.sin_addr.s_addr} << 16 | from.sin_port];
    if (!flow.upstream) {
        flow.client = from;
        flow.upstream = open_udp(htonl(INADDR_ANY));
        if (connect(flow.upstream.fd(), reinterpret_cast<const sockaddr*>(&server_), sizeof(server_)) != 0) return;
    }
    remember(datagram);
    if (roll(forged_one_in)) {
        const datagram_t noise = forge();
        send(flow.upstream.fd(), noise.data(), noise.size(), 0);
    }
    send(flow.upstream.fd(), datagram.data(), datagram.size(), 0);
}

void udp_proxy_t::from_server(flow_t& flow) {
    datagram_t datagram(largest);
    const ssize_t got = recv(flow.upstream.fd(), datagram.data(), datagram.size(), 0);
    if (got < 0) return;
    datagram.resize(static_cast<size_t>(got));
    remember(datagram);
    const auto* to = reinterpret_cast<const sockaddr*>(&flow.client);
    if (roll(forged_one_in)) {
        const datagram_t noise = forge();
        sendto(front_.fd(), noise.data(), noise.size(), 0, to, sizeof(flow.client));
    }
    sendto(front_.fd(), datagram.data(), datagram.size(), 0, to, sizeof(flow.client));
}

void udp_proxy_t::remember(const datagram_t& datagram) {
    if (seen_.size() < kept) {
        seen_.push_back(datagram);
    } else {
        seen_[kept_first + random_() % (kept - kept_first)] = datagram;
    }
}

udp_proxy_t::datagram_t udp_proxy_t::forge() {
    ++forged_;
    datagram_t forged = seen_[random_() % seen_.size()];
    switch (random_() % 5) {
        case 0:  // turned bits, mostly in the header
            for (unsigned i = 0; i < 3 && !forged.empty(); ++i) {
                const size_t reach = roll(2) ? std::min<size_t>(forged.size(), 32) : forged.size();
                forged[random_() % reach] ^= static_cast<uint8_t>(1U << random_() % 8);
            }
            break;
        case 1:  // cut short
            forged.resize(random_() % (forged.size() + 1));
            break;
        case 2:  // lengthened
            forged.resize(std::min<size_t>(forged.size() + random_() % 400, 60000), 0xff);
            break;
        case 3:  // an old one, whole
            break;
        default:  // noise that begins like a long or a short header
            forged.assign(1 + random_() % 1400, 0);
            for (uint8_t& byte : forged)
                byte = static_cast<uint8_t>(random_());
            forged[0] = static_cast<uint8_t>(forged[0] | 0x40U);
    }
    return forged;
}

}  // namespace tandem::test
