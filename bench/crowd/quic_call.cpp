#include "bench/crowd/quic_call.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "platform/tndm/udp/batch_receiver.h"
#include "platform/tndm/udp/batch_sender.h"
#include "platform/tndm/udp/socket.h"

namespace bench {
namespace {

constexpr auto patience = std::chrono::seconds(10);

tndm::core::instant now() {
    return tndm::core::instant(std::chrono::steady_clock::now().time_since_epoch());
}

int milliseconds_until(tndm::core::instant deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 1000));
}

class udp_socket {
  public:
    udp_socket() : fd_(tndm::open_path_socket(AF_INET, 0, "127.0.0.1")) {
        if (fd_ < 0) throw std::runtime_error("no UDP socket");
    }
    udp_socket(const udp_socket&) = delete;
    udp_socket& operator=(const udp_socket&) = delete;
    ~udp_socket() { close(fd_); }
    int fd() const { return fd_; }

  private:
    int fd_;
};

}  // namespace

quic_caller::quic_caller(std::string alpn) : alpn_(std::move(alpn)), buffer_(tndm::subflow::batch_capacity) {
    std::string error;
    credentials_ = tndm::client_credentials::load("insecure:yes", "", error);
    if (!credentials_) throw std::runtime_error(error);
}

std::unique_ptr<tndm::subflow> quic_caller::make(const tndm::endpoint& local, const tndm::endpoint& remote) const {
    std::string error;
    auto tls = tndm::tls_session::create_client(credentials_, alpn_, error);
    auto made = tls ? tndm::subflow::create_client({}, std::move(tls), local, remote, now()) : nullptr;
    if (!made) throw std::runtime_error("no QUIC connection: " + error);
    return made;
}

std::vector<uint8_t> quic_caller::first_packet() {
    const auto anywhere = *tndm::endpoint::parse("127.0.0.1", 9);
    const auto flow = make(anywhere, anywhere);
    std::vector<uint8_t> packet;
    flow->flush(now(), buffer_, [&](const tndm::outgoing_batch& batch) {
        if (packet.empty())
            packet.assign(batch.data.begin(), batch.data.begin() + static_cast<long>(batch.segment_size));
        return true;
    });
    if (packet.size() < 1200) throw std::runtime_error("a first packet that is too small");
    return packet;
}

void quic_caller::handshake(uint16_t port) {
    const udp_socket socket;
    const auto flow = make(tndm::local_endpoint(socket.fd()), *tndm::endpoint::parse("127.0.0.1", port));
    static tndm::batch_receiver receiver;
    tndm::batch_sender sender;
    const tndm::batch_sink sink = [&](const tndm::outgoing_batch& batch) {
        return sender.send(socket.fd(), batch.remote, nullptr, batch.data, batch.segment_size, batch.ecn).error == 0;
    };
    const auto give_up = now() + patience;
    while (!flow->handshake_completed()) {
        flow->flush(now(), buffer_, sink);
        pollfd wait{socket.fd(), POLLIN, 0};
        poll(&wait, 1, milliseconds_until(flow->deadline()));
        receiver.receive(socket.fd(), [&](const tndm::received_datagram& datagram) {
            flow->read(datagram.data, flow->local(), flow->remote(), datagram.ecn, now());
        });
        flow->on_time(now());
        if (flow->ended() || now() > give_up) {
            throw std::runtime_error("the handshake failed" + (flow->ended() ? ": " + flow->ended()->reason : ""));
        }
    }
    flow->flush(now(), buffer_, sink);
    flow->close(tndm::close_code::bundle_closed, now(), buffer_, sink);
}

}  // namespace bench
