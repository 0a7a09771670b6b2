// The transport's whole server, fed the datagrams of clients that live beside it: as they are, changed, cut, doubled,
// lost, from other addresses, or made up; and clients whose packets are in order and whose control messages, datagrams
// or TLS messages are not. No socket and no clock is used: what the server reads and writes is here. When everybody has
// fallen silent, nothing is left of anybody.
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>

#include "fuzz/input.h"
#include "fuzz/quic_client.h"
#include "platform/tndm/core/wire.h"
#include "platform/tndm/endpoint/registry.h"
#include "platform/tndm/endpoint/server.h"
#include "platform/tndm/udp/socket.h"
#include "tests/fake/fake_platform.h"
#include "tests/quic_tls/certificates.h"

namespace {

using fuzz::bytes_t;
using fuzz::require;
using namespace std::chrono_literals;
namespace core = tndm::core;
namespace control = tndm::control;

struct letter {
    sockaddr_in client;
    bytes_t bytes;
};
std::vector<letter> to_server;
std::vector<letter> from_server;

void keep(const msghdr& header) {
    letter out{};
    require(header.msg_namelen == sizeof(out.client), "answers go to addresses");
    std::memcpy(&out.client, header.msg_name, sizeof(out.client));
    const auto* data = static_cast<const uint8_t*>(header.msg_iov[0].iov_base);
    out.bytes.assign(data, data + header.msg_iov[0].iov_len);
    from_server.push_back(std::move(out));
}

}  // namespace

// --- the socket ---

extern "C" int __wrap_recvmmsg(int, mmsghdr* messages, unsigned most, int, timespec*) {
    const unsigned count = std::min(most, static_cast<unsigned>(to_server.size()));
    for (unsigned i = 0; i < count; ++i) {
        const letter& in = to_server[i];
        msghdr& header = messages[i].msg_hdr;
        std::memcpy(header.msg_name, &in.client, sizeof(in.client));
        header.msg_namelen = sizeof(in.client);
        header.msg_controllen = 0;
        if (!in.bytes.empty()) std::memcpy(header.msg_iov[0].iov_base, in.bytes.data(), in.bytes.size());
        messages[i].msg_len = static_cast<unsigned>(in.bytes.size());
    }
    to_server.erase(to_server.begin(), to_server.begin() + count);
    return static_cast<int>(count);
}
extern "C" ssize_t __wrap_sendmsg(int, const msghdr* header, int) {
    auto* given = const_cast<msghdr*>(header);
    for (cmsghdr* item = CMSG_FIRSTHDR(given); item != nullptr; item = CMSG_NXTHDR(given, item)) {
        if (item->cmsg_level == SOL_UDP && item->cmsg_type == UDP_SEGMENT) {
            errno = EIO;  // no segmentation offload here
            return -1;
        }
    }
    keep(*header);
    return static_cast<ssize_t>(header->msg_iov[0].iov_len);
}
extern "C" int __wrap_sendmmsg(int, mmsghdr* messages, unsigned count, int) {
    for (unsigned i = 0; i < count; ++i) {
        keep(messages[i].msg_hdr);
    }
    return static_cast<int>(count);
}

namespace {

// --- what lasts for the whole process ---

struct surroundings {
    surroundings() {
        const tndm::temporary_folder folder;
        const tndm::private_key key;
        const tndm::certificate certificate(key, {});
        std::string error;
        server = tndm::server_credentials::load(folder.write("cert.pem", certificate.pem()),
                                                folder.write("key.pem", key.pem()), error);
        client = tndm::client_credentials::load("insecure:yes", "server.test", error);
        socket = tndm::open_path_socket(AF_INET, 0, "127.0.0.1");
        require(server != nullptr && client != nullptr && socket >= 0, "the harness has its surroundings");
    }
    static surroundings& get() {
        static auto* const the_one = new surroundings;
        return *the_one;
    }

    std::shared_ptr<const tndm::server_credentials> server;
    std::shared_ptr<const tndm::client_credentials> client;
    int socket;
    fake::loop_t loop;
    tndm::batch_receiver receiver;
    bytes_t buffer = bytes_t(tndm::subflow::batch_capacity);
};

// --- one run ---

class play : public tndm::driver {
  public:
    explicit play(fuzz::input& in) : in_(in), around_(surroundings::get()) {
        to_server.clear();
        from_server.clear();
        playing = this;
        app_.on_established = [](void*, const st_tndm_connection_id_t*, void* connection) {
            playing->live_[connection] = true;
        };
        app_.on_disconnected = [](void*, const st_tndm_connection_id_t*, void* connection) {
            require(playing->live_.erase(connection) == 1, "a connection ends once, after it has begun");
        };
        app_.on_data = on_data;
        own_.streams = 16;
        own_.stream_window = 16384;
        own_.connection_window = 32768;
        own_.stream_window_max = own_.connection_window_max = own_.paused_allowance = 65536;
        server_.emplace(
            tndm::environment{around_.loop.handle(), *this, app_, commands_, around_.receiver, {}, own_, dead_},
            around_.socket, around_.server, "test");
    }
    ~play() override { playing = nullptr; }

    tndm::pass begin() override { return {now_, around_.buffer}; }
    bool finish(const tndm::pass&) override { return true; }

    void run() {
        add_client(std::nullopt);
        for (int steps = 0; in_.more() && steps < 200; ++steps) {
            step();
            turn();
            check();
        }
        fall_silent();
    }

  private:
    static void on_data(void*, void* connection, uint64_t stream, int fin, const uint8_t* data, uint32_t size, int*) {
        require(playing->live_.contains(connection), "data belong to a live connection");
        playing->echo_.push_back({connection, stream, bytes_t(data, data + size), fin != 0});
    }

    fuzz::quic_client& client() { return *clients_[current_]; }

    void add_client(std::optional<fuzz::quic_client::lie> lie) {
        if (clients_.size() >= 4) return;
        current_ = clients_.size();
        clients_.push_back(std::make_unique<fuzz::quic_client>(
            around_.client, static_cast<uint16_t>(20000 + clients_.size()), lie, now_));
    }

    // The server reads, answers, and echoes what its application was given.
    void turn() {
        const tndm::pass p = begin();
        while (!to_server.empty()) {
            server_->read_sockets(p);
        }
        server_->on_time(p);
        for (int round = 0; round < 8 && server_->run(p); ++round) {
            echo(p);
        }
        echo(p);
        server_->run(p);
    }

    void echo(const tndm::pass& p) {
        for (auto& each : std::exchange(echo_, {})) {
            const auto ledger = tndm::registry<tndm::ledger>::of_process().find(each.connection);
            if (ledger == nullptr || !ledger->book(each.stream, each.bytes.size(), each.last)) continue;
            tndm::command asked{.what = tndm::command::kind::queue,
                                .connection = each.connection,
                                .stream = each.stream,
                                .bytes = core::buffer::copy_of(each.bytes),
                                .flag = each.last};
            server_->apply(asked, p);
        }
    }

    void check() {
        for (const auto& [handle, live] : live_) {
            const tndm::connection* of = server_->find(handle);
            require(of != nullptr, "who was established is there until it ends");
            require(!of->bundle().violation().empty() ||
                        of->bundle().bytes_held() <= own_.connection_window_max + own_.paused_allowance,
                    "what a client can make the server hold is bounded");
        }
        require(from_server.size() < 10'000, "the server does not answer without end");
    }

    void exchange(int rounds) {
        for (; rounds > 0; --rounds) {
            bool any = collect();
            while (!waiting_.empty()) {
                any = true;
                to_server.push_back(std::move(waiting_.front()));
                waiting_.pop_front();
            }
            turn();
            any = !from_server.empty() || any;
            for (const letter& answer : std::exchange(from_server, {})) {
                for (const auto& each : clients_) {
                    if (each->address().sin_port == answer.client.sin_port) each->read(answer.bytes, now_);
                }
            }
            now_ += 1ms;
            if (!any) return;
        }
    }

    // What the clients have to send waits to be carried.
    bool collect() {
        for (const auto& each : clients_) {
            for (bytes_t& packet : each->write(now_)) {
                waiting_.push_back({each->address(), std::move(packet)});
            }
        }
        return !waiting_.empty();
    }

    letter* a_waiting_one() {
        collect();
        return waiting_.empty() ? nullptr
                                : &waiting_[in_.below(static_cast<uint32_t>(std::min<size_t>(waiting_.size(), 256)))];
    }

    sockaddr_in stranger() {
        sockaddr_in from = client().address();
        from.sin_port = htons(static_cast<uint16_t>(30000 + in_.byte()));
        return from;
    }

    void step() {
        const uint8_t what = in_.byte();
        if (what % 16 < 5) return trouble(what % 16);
        switch (what % 16) {
            case 5:
                return client().say(in_.bytes());
            case 6:
                return client().say(control::encode(message()));
            case 7: {
                const auto bytes = in_.bytes();
                return client().datagram({bytes.begin(), bytes.end()});
            }
            case 8:
                return say_chunk();
            case 9:
                now_ += std::chrono::milliseconds(in_.below(20'000));
                return;
            case 10: {
                const auto bytes = in_.bytes();
                to_server.push_back({stranger(), {bytes.begin(), bytes.end()}});
                return;
            }
            case 11:
                return add_client(in_.flag() ? std::optional(fuzz::quic_client::lie{in_.below(1024), in_.byte()})
                                             : std::nullopt);
            case 12:
                current_ = in_.below(static_cast<uint32_t>(clients_.size()));
                return;
            case 13:
                return application();
            default:
                exchange(1 + static_cast<int>(in_.below(8)));
        }
    }

    // What networks and those who sit on them do.
    void trouble(unsigned what) {
        letter* packet = a_waiting_one();
        if (packet == nullptr) return;
        switch (what) {
            case 0:
                for (uint32_t i = in_.between(1, 4); i > 0; --i) {
                    packet->bytes[in_.below(2048) % packet->bytes.size()] ^= in_.byte();
                }
                return;
            case 1:
                packet->bytes.resize(in_.below(static_cast<uint32_t>(packet->bytes.size())));
                if (packet->bytes.empty()) packet->bytes.push_back(0);
                return;
            case 2: {
                letter copy = *packet;
                if (in_.flag()) copy.client = stranger();
                to_server.push_back(std::move(copy));
                return;
            }
            case 3:
                waiting_.pop_front();
                return;
            default: {
                const auto more = in_.bytes();
                packet->bytes.insert(packet->bytes.end(), more.begin(), more.end());
            }
        }
    }

    control::message message() {
        const std::string path = in_.text().substr(0, control::max_name);
        switch (in_.below(6)) {
            case 0:
            case 1:
                return control::hello{
                    path,       {in_.below(64), in_.below(1 << 24), in_.below(1 << 24)},
                    in_.byte(), in_.byte(),
                    in_.flag(), in_.flag() ? control::policy::redundant : control::policy::sooner_first};
            case 2:
            case 3:
                return join(path);
            case 4:
                return control::gone{in_.byte()};
            default:
                return control::ready{};
        }
    }

    // With the right proof, when there is a bundle to join and nothing is changed.
    control::join join(const std::string& path) {
        control::join made{path, {}, {}, in_.byte(), in_.flag()};
        const auto exporter = client().exporter();
        for (const auto& each : clients_) {
            if (exporter && each->welcomed()) {
                made.id = each->welcomed()->id;
                made.proof = tndm::join_proof(each->welcomed()->join_secret, *exporter);
            }
        }
        if (in_.below(4) == 1) made.proof[in_.below(32)] ^= in_.byte();
        return made;
    }

    void say_chunk() {
        core::wire::chunk chunk{in_.below(32), in_.below(32768), in_.flag(), std::nullopt, {}};
        const auto head = core::wire::header::of(chunk);
        bytes_t datagram(head.bytes().begin(), head.bytes().end());
        const auto body = in_.bytes();
        datagram.insert(datagram.end(), body.begin(), body.end());
        client().datagram(std::move(datagram));
    }

    // The server's own application.
    void application() {
        if (live_.empty()) return;
        void* const handle = live_.begin()->first;
        const uint8_t what = in_.byte();
        if (what < 64) {
            tndm::command asked{.what = tndm::command::kind::close_connection, .connection = handle};
            return server_->apply(asked, begin());
        }
        if (what < 128) {
            tndm::command asked{.what = tndm::command::kind::pause,
                                .connection = handle,
                                .stream = in_.below(32),
                                .flag = (what & 1) != 0};
            return server_->apply(asked, begin());
        }
        const auto ledger = tndm::registry<tndm::ledger>::of_process().find(handle);
        const uint64_t stream = ledger->open_stream((what & 1) != 0);
        if (stream != tndm::ledger::no_stream)
            echo_.push_back({handle, stream, bytes_t(in_.below(4096)), (what & 2) != 0});
    }

    // Nobody sends any more: within minutes everything must be gone.
    void fall_silent() {
        clients_.clear();
        waiting_.clear();
        const core::instant end = now_ + std::chrono::minutes(10);
        for (int i = 0; server_->deadline() != core::never; ++i) {
            require(i < 20'000, "deadlines do not come without end");
            now_ = std::max(now_, server_->deadline());
            require(now_ <= end, "silence ends everything");
            turn();
            from_server.clear();
        }
        require(live_.empty(), "who was established is told of the end");
        server_.reset();
        require(tndm::registry<tndm::ledger>::of_process().size() == 0, "nothing of a connection is left");
    }

    struct reply {
        void* connection;
        uint64_t stream;
        bytes_t bytes;
        bool last;
    };

    inline static play* playing = nullptr;

    fuzz::input& in_;
    surroundings& around_;
    core::instant now_ = core::instant{} + 100'000s;
    tndm::application app_;
    std::shared_ptr<tndm::mailbox> commands_ = std::make_shared<tndm::mailbox>();
    core::limits own_;
    const bool dead_ = false;
    std::optional<tndm::server> server_;
    std::map<void*, bool> live_;
    std::vector<reply> echo_;
    std::vector<std::unique_ptr<fuzz::quic_client>> clients_;
    size_t current_ = 0;
    std::deque<letter> waiting_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::be_quiet();
    fuzz::input in(data, size);
    play(in).run();
    return 0;
}
