// Forward requests and what follows them, on a forwarding context of either delivery. Targets are socket pairs: no name
// is looked up and no packet leaves, whatever is asked for.
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "common/varint.h"
#include "forward/advanced_connection_context.h"
#include "fuzz/input.h"
#include "tests/fake/fake_platform.h"

// --- the world outside, which answers at once and is empty ---

extern "C" int __real_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
extern "C" int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    addrinfo numeric = hints != nullptr ? *hints : addrinfo{};
    numeric.ai_flags |= AI_NUMERICHOST;
    return __real_getaddrinfo(node, service, &numeric, result);
}
extern "C" int __wrap_connect(int, const sockaddr*, socklen_t) {
    errno = ENETUNREACH;
    return -1;
}
// Datagrams for an address go to the other end of the pair.
extern "C" ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr*, socklen_t) {
    return send(fd, data, size, flags | MSG_DONTWAIT);
}
extern "C" int __real_sendmmsg(int fd, mmsghdr* messages, unsigned count, int flags);
extern "C" int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned count, int flags) {
    for (unsigned i = 0; i < count; ++i) {
        messages[i].msg_hdr.msg_name = nullptr;
        messages[i].msg_hdr.msg_namelen = 0;
    }
    return __real_sendmmsg(fd, messages, count, flags);
}

namespace {

using fuzz::require;

// What the peer may send in one run: more streams than that only cost threads.
constexpr size_t most_targets = 8;

class context_t : public tandem::advanced_connection_context_t {
  public:
    explicit context_t(st_tloop_t* on) : advanced_connection_context_t(on, "", "", "", "") {
        set_default_tuntap_device("/dev/null");
        max_frame_length = 65536;
    }
    ~context_t() override {
        stop_forwarding();
        for (const int fd : far_ends_) {
            close(fd);
        }
    }

    using base = advanced_connection_context_t;
    using base::period_check;
    using base::remote_streams;

    int on_create_tcp_connect_socket(uint64_t, sockaddr_storage*) override { return make_pair(SOCK_STREAM); }
    int on_create_udp_connect_socket(uint64_t, sockaddr_storage*) override { return make_pair(SOCK_DGRAM); }
    int on_create_vpn_interface(uint64_t, std::multimap<std::string, std::string>&, std::string& ifname,
                                const std::string&) override {
        if (ifname.empty()) ifname = "tun0";
        return make_pair(SOCK_SEQPACKET);
    }

    // The descriptor for a target, or -1; the far end stays here.
    int make_pair(int type) {
        const std::lock_guard guard(mutex_);
        int fds[2];
        if (refusing || socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) return -1;
        far_ends_.push_back(fds[1]);
        return fds[0];
    }
    // -1 when there is none.
    int far_end(size_t which) {
        const std::lock_guard guard(mutex_);
        return far_ends_.empty() ? -1 : far_ends_[which % far_ends_.size()];
    }
    bool connecting() {
        const std::lock_guard guard(table_lock);
        return std::any_of(pending_remote.begin(), pending_remote.end(),
                           [](const auto& entry) { return entry.second->state == STATE_CONNECTING; });
    }
    void check() {
        const std::lock_guard guard(table_lock);
        for (const auto& [stream, record] : remote_streams) {
            const std::lock_guard inner(record->lock);
            uint64_t queued = 0;
            for (const auto& packet : record->pending_packets) {
                queued += packet->size();
            }
            require(queued < 32 << 20, "what waits for a target is bounded");
        }
    }

    std::atomic<bool> refusing{false};

  private:
    std::mutex mutex_;
    std::vector<int> far_ends_;
};

class play {
  public:
    explicit play(fuzz::input& in) : in_(in) {
        const uint8_t how = in_.byte();
        auto* instance = fake::make_instance((how & 1) != 0);
        connection_ = fake::connect("test", instance);
        context_ = std::make_shared<context_t>(loop_.handle());
        if ((how & 2) != 0) context_->set_delivery(tandem::delivery_t::lossless);
        context_->reset(instance, connection_, loop_.handle(), 0, "test");
        if ((how & 4) != 0) {
            const int fd = context_->make_pair(SOCK_SEQPACKET);
            require(context_->add_vpn_forward(fd, "mode: tun", false) == fd, "a VPN descriptor can be registered");
        }
        push(99, "\x03\xa2TC", false);
    }

    void run() {
        while (in_.more()) {
            step();
            settle();
            context_->check();
        }
        // Without the loop's lock, which this loop's wake-ups take: a worker may be on its way out.
        context_->on_destroy();
        context_.reset();
        require(loop_.count(fake::watcher_t::io) == 0 && loop_.count(fake::watcher_t::timer) == 0 &&
                    loop_.count(fake::watcher_t::async) == 0,
                "a context leaves nothing on its loop");
    }

  private:
    void push(uint64_t stream, const std::string& bytes, bool fin) {
        loop_.handle()->ops->enter(loop_.handle());
        context_->push_stream_data(stream, reinterpret_cast<const uint8_t*>(bytes.data()),
                                   static_cast<uint32_t>(bytes.size()), fin ? 1 : 0);
        loop_.handle()->ops->leave(loop_.handle());
    }

    // Workers need no time: they only open a pair.
    void settle() {
        while (context_->connecting()) {
            std::this_thread::yield();
        }
        for (int i = 0; i < 20 && loop_.fire_asyncs() + loop_.poll_io(0) > 0; ++i) {
        }
    }

    uint64_t stream() { return 101 + 4 * in_.below(most_targets); }

    static std::string frame(const std::string& body) {
        uint8_t header[8];
        const int length = t_varint_encode(header, sizeof(header), body.size());
        return std::string(reinterpret_cast<char*>(header), static_cast<size_t>(length)) + body;
    }

    std::string request() {
        static constexpr const char* kinds[] = {"TCP", "UDP", "VPN", ""};
        tandem::packet_t packet(0);
        packet.pack_string("FWDR");
        packet.pack_map_raw(3);
        packet.pack_string("t");
        packet.pack_string(kinds[in_.below(4)]);
        packet.pack_string("ta");
        const std::string target = in_.text();
        packet.pack_string(target.empty() ? "127.0.0.1" : target);
        packet.pack_string("tp");
        packet.pack_uint16(static_cast<uint16_t>(in_.below(65536)));
        return frame({reinterpret_cast<char*>(packet.data()), packet.size()});
    }

    void step() {
        const uint8_t what = in_.byte();
        const bool fin = (what & 0xc0) == 0xc0;
        switch (what % 12) {
            case 0:
                return push(stream(), in_.text(), fin);
            case 1:
                return push(stream(), frame(in_.text()), fin);
            case 2:
                return push(stream(),
                            frame("\xa4"
                                  "FWDR" +
                                  in_.text()),
                            fin);
            case 3:
            case 4: {
                const uint64_t to = stream();
                const std::string asked = request();
                return push(to, asked + (in_.flag() ? frame(in_.text()) : ""), fin);
            }
            case 5:
                // Many at once.
                return push(stream(), frame(std::string(in_.below(60'000) + 1, 'x')), fin);
            case 6:
                return far_writes();
            case 7:
                return far_reads();
            case 8:
                fake::set_backlog(connection_, stream(), in_.flag() ? 100 << 20 : 0);
                return;
            case 9: {
                const uint64_t of = stream();
                loop_.handle()->ops->enter(loop_.handle());
                context_->stream_writable(of);
                loop_.handle()->ops->leave(loop_.handle());
                return;
            }
            case 10:
                loop_.fire_timers();
                return;
            default:
                context_->refusing = in_.flag();
        }
    }

    void far_writes() {
        const int fd = context_->far_end(in_.byte());
        const auto bytes = in_.bytes();
        if (fd >= 0) static_cast<void>(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    }

    void far_reads() {
        const int fd = context_->far_end(in_.byte());
        if (fd < 0) return;
        if (in_.below(4) == 0) {
            shutdown(fd, in_.flag() ? SHUT_WR : SHUT_RDWR);
            return;
        }
        static uint8_t buffer[1 << 18];
        static_cast<void>(recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT));
    }

    fuzz::input& in_;
    fake::loop_t loop_;
    fake::connection_t* connection_ = nullptr;
    std::shared_ptr<context_t> context_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::be_quiet();
    fuzz::input in(data, size);
    play(in).run();
    fake::purge();
    return 0;
}
