#include "tests/transport/quic_peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tests/transport/network.h"

namespace transport_test {

namespace {

ngtcp2_tstamp now() {
    return static_cast<ngtcp2_tstamp>(std::chrono::steady_clock::now().time_since_epoch() /
                                      std::chrono::nanoseconds(1));
}

std::unique_ptr<tndm::tls_session> session() {
    std::string error;
    return tndm::tls_session::create_client(tndm::client_credentials::load("insecure:yes", "server.test", error),
                                            "test", error);
}

}  // namespace

quic_peer::quic_peer(uint16_t server_port, uint64_t datagram_size)
    : quic_end(session(), now(), datagram_size), fd_(open_udp(server_port)) {
    on_stream = [this](std::span<const uint8_t> bytes) { return messages_.push(bytes); };
}

quic_peer::~quic_peer() {
    close(fd_);
}

bool quic_peer::drive(const std::function<bool()>& done, milliseconds limit) {
    const auto end = now() + static_cast<uint64_t>(std::chrono::nanoseconds(limit).count());
    for (;;) {
        for (const packet& each : write(now())) {
            send(fd_, each.data(), each.size(), 0);
        }
        if (done()) {
            return true;
        }
        const auto time = now();
        if (error() != 0 || time >= end) {
            return false;
        }
        const auto wait = std::max(std::min(end, deadline()), time) - time;
        const timespec timeout{static_cast<time_t>(wait / NGTCP2_SECONDS), static_cast<long>(wait % NGTCP2_SECONDS)};
        pollfd watched{fd_, POLLIN, 0};
        ppoll(&watched, 1, &timeout, nullptr);
        uint8_t buffer[2048];
        for (ssize_t got; (got = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
            read({buffer, static_cast<size_t>(got)}, now());
        }
    }
}

bool quic_peer::handshake(milliseconds limit) {
    return drive([&] { return completed(); }, limit);
}

std::optional<tndm::control::message> quic_peer::next_message(milliseconds limit) {
    std::optional<tndm::control::message> found;
    drive([&] { return (found = messages_.next()).has_value(); }, limit);
    return found;
}

bool quic_peer::closed(milliseconds limit) {
    idle(limit);
    return error() == NGTCP2_ERR_DRAINING;
}

std::optional<tndm::control::welcome> quic_peer::join_new(uint32_t linger, bool mute) {
    if (!handshake()) {
        return std::nullopt;
    }
    say(tndm::control::hello{"hostile", {100, 1 << 20, 4 << 20}, linger});
    const auto answer = next_message();
    if (!answer || !std::holds_alternative<tndm::control::welcome>(*answer)) {
        return std::nullopt;
    }
    if (!mute) {
        say(tndm::control::ready{});
    }
    return std::get<tndm::control::welcome>(*answer);
}

}  // namespace transport_test
