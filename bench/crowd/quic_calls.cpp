/* Many clients of a transport server on 127.0.0.1, whose certificate is not checked.
 *
 *   quic_calls handshakes PORT ALPN COUNT       one after the other; prints the seconds
 *   quic_calls flood PORT ALPN RATE SECONDS     so many first packets a second from forged addresses in 127.0.0.0/8
 *                                               (needs root); prints how many went out
 */
#include <arpa/inet.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "bench/crowd/quic_call.h"

namespace {

using clock_type = std::chrono::steady_clock;

uint16_t port_of(const std::string& text) {
    const unsigned long port = std::stoul(text);
    if (port == 0 || port > 65535) throw std::runtime_error("no such port: " + text);
    return static_cast<uint16_t>(port);
}

double handshakes(uint16_t port, const std::string& alpn, unsigned long count) {
    bench::quic_caller caller(alpn);
    const auto start = clock_type::now();
    for (unsigned long i = 0; i < count; ++i)
        caller.handshake(port);
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

/* An IPv4 and a UDP header in front of the payload; without a UDP checksum, which IPv4 allows. */
std::vector<uint8_t> with_headers(const std::vector<uint8_t>& payload, uint16_t port, std::mt19937& random) {
    std::vector<uint8_t> packet(sizeof(iphdr) + sizeof(udphdr) + payload.size());
    iphdr ip{};
    ip.version = 4;
    ip.ihl = 5;
    ip.ttl = 64;
    ip.protocol = IPPROTO_UDP;
    ip.saddr = htonl((127U << 24) | (random() & 0xffffffU) | 1U << 23);
    ip.daddr = htonl(INADDR_LOOPBACK);
    ip.tot_len = htons(static_cast<uint16_t>(packet.size()));
    udphdr udp{};
    udp.source = htons(static_cast<uint16_t>(1024 + random() % 60000));
    udp.dest = htons(port);
    udp.len = htons(static_cast<uint16_t>(sizeof udp + payload.size()));
    std::memcpy(packet.data(), &ip, sizeof ip);
    std::memcpy(packet.data() + sizeof ip, &udp, sizeof udp);
    std::memcpy(packet.data() + sizeof ip + sizeof udp, payload.data(), payload.size());
    return packet;
}

unsigned long flood(uint16_t port, const std::string& alpn, unsigned long rate, double seconds) {
    bench::quic_caller caller(alpn);
    std::mt19937 random(1);
    std::vector<std::vector<uint8_t>> packets(static_cast<size_t>(static_cast<double>(rate) * seconds));
    for (auto& each : packets)
        each = with_headers(caller.first_packet(), port, random);
    const int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "a raw socket");
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::printf("ready\n");
    std::fflush(stdout);
    if (std::getchar() == EOF) throw std::runtime_error("nobody said when to begin");
    unsigned long sent = 0;
    const auto start = clock_type::now();
    for (size_t i = 0; i < packets.size(); ++i) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(1000000 * i / rate));
        const auto* address = reinterpret_cast<const sockaddr*>(&to);
        if (sendto(fd, packets[i].data(), packets[i].size(), 0, address, sizeof to) > 0) ++sent;
    }
    close(fd);
    return sent;
}

void run(const std::vector<std::string>& words) {
    if (words.size() == 4 && words[0] == "handshakes") {
        std::printf("%.6f\n", handshakes(port_of(words[1]), words[2], std::stoul(words[3])));
    } else if (words.size() == 5 && words[0] == "flood") {
        std::printf("%lu\n", flood(port_of(words[1]), words[2], std::stoul(words[3]), std::stod(words[4])));
    } else {
        throw std::runtime_error("usage: quic_calls handshakes PORT ALPN COUNT | flood PORT ALPN RATE SECONDS");
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run({argv + 1, argv + argc});
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quic_calls: %s\n", error.what());
        return 1;
    }
}
