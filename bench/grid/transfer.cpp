#include "bench/grid/transfer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "bench/grid/edge.h"
#include "bench/grid/time_line.h"
#include "link/tndm.h"
#include "tests/quic_tls/certificates.h"

namespace grid {

namespace {

constexpr uint32_t piece = 64 * 1024;
// How much the application keeps queued, and when it goes on: as forwarding does with one TCP connection.
constexpr uint64_t high_water = 1 << 20;
constexpr uint64_t low_water = high_water / 2;
constexpr const char* alpn = "grid";

struct identity {
    std::string cert;
    std::string key;
};

// Ed25519: its signatures all have one length, so that no handshake is longer than another.
const identity& server_identity() {
    static const tndm::temporary_folder folder;
    static const identity the_one = [] {
        const tndm::private_key key(GNUTLS_PK_EDDSA_ED25519);
        const tndm::certificate cert(key, {});
        return identity{folder.write("cert.pem", cert.pem()), folder.write("key.pem", key.pem())};
    }();
    return the_one;
}

uint8_t byte_at(uint64_t offset) {
    return static_cast<uint8_t>((offset * 0x9e3779b97f4a7c15) >> 56);
}

// The content repeats with a period that nothing else has, so that bytes at the wrong place are noticed.
constexpr uint32_t period = 65521;

// A period of it, and one piece more: any piece can be copied or compared at once.
const uint8_t* content_at(uint64_t offset) {
    static const std::vector<uint8_t> made = [] {
        std::vector<uint8_t> bytes(period + piece);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = byte_at(i % period);
        }
        return bytes;
    }();
    return made.data() + offset % period;
}

class download {
  public:
    download(std::span<const path_settings> paths, const transfer_settings& how) : how_(how), world_(paths) {}
    ~download() {
        tndm_destroy_instance(client_);
        tndm_destroy_instance(server_);
    }
    download(const download&) = delete;
    download& operator=(const download&) = delete;

    outcome run(size_t path_count, duration patience);

  private:
    static download& of(void* instance) { return *static_cast<download*>(tndm_get_instance_userdata(instance)); }
    void* make_instance();
    void start_server();
    void start_client(size_t path_count);
    void on_request(void* connection, uint64_t stream);
    void feed(void* connection, uint64_t stream);
    void on_answer(const uint8_t* data, uint32_t size, bool last);

    const transfer_settings how_;
    world world_;
    void* server_ = nullptr;
    void* client_ = nullptr;
    st_tndm_server_t server_record_{};
    st_tndm_client_t client_record_{};
    void* serving_ = nullptr;    // the server's connection
    void* receiving_ = nullptr;  // the client's
    uint64_t queued_ = 0;
    outcome result_;
    bool done_ = false;
};

void* download::make_instance() {
    // As the link of the product does.
    const st_tndm_instance_t record{.param_a = 1024,
                                    .congestion_control = how_.congestion.c_str(),
                                    .flag = false,
                                    .param_c = 1400,
                                    .param_b = 1 << 20,
                                    .loop = world_.loop()};
    void* made = tndm_create_instance(&record, this);
    if (made == nullptr) {
        throw std::runtime_error("the transport cannot be made");
    }
    return made;
}

void download::start_server() {
    server_ = make_instance();
    server_record_.alpn = alpn;
    server_record_.cert = server_identity().cert.c_str();
    server_record_.key = server_identity().key.c_str();
    server_record_.on_data = [](void* instance, void* connection, uint64_t stream, int, const uint8_t*, uint32_t,
                                int*) { of(instance).on_request(connection, stream); };
    tndm_set_writable_callback(
        server_, [](void* instance, void* connection, uint64_t stream) { of(instance).feed(connection, stream); });
    if (tndm_start_server(server_, world_.server_socket(), &server_record_) != 0) {
        throw std::runtime_error("the server cannot be started");
    }
}

void download::start_client(size_t path_count) {
    client_ = make_instance();
    std::strcpy(client_record_.text, "insecure:yes;");
    client_record_.alpn = alpn;
    client_record_.param = 10;
    client_record_.create_path = [](void*, const char* path) {
        return world::current().open_client_socket(static_cast<size_t>(path[0] - 'a'));
    };
    client_record_.on_established = [](void* instance, const st_tndm_connection_id_t*, void* connection) {
        of(instance).receiving_ = connection;
        static constexpr uint8_t request[] = "GET";
        tndm_enable_keep_alive(connection, nullptr, 0, 0);
        tndm_add_to_stream(connection, tndm_get_next_local_stream_id(connection, false), request, sizeof request, 1);
    };
    client_record_.on_disconnected = [](void* instance, const st_tndm_connection_id_t*, void*) {
        of(instance).receiving_ = nullptr;
    };
    client_record_.on_data = [](void* instance, void*, uint64_t, int fin, const uint8_t* data, uint32_t size, int*) {
        of(instance).on_answer(data, size, fin != 0);
    };
    if (tndm_start_client(client_, world::server_address(), world::server_port, &client_record_) != 0) {
        throw std::runtime_error("the client cannot be started");
    }
    for (size_t i = 0; i < path_count; ++i) {
        tndm_add_path(client_, std::string(1, static_cast<char>('a' + i)).c_str());
    }
}

void download::on_request(void* connection, uint64_t stream) {
    serving_ = connection;
    tndm_enable_keep_alive(connection, nullptr, 0, 0);
    feed(connection, stream);
}

void download::feed(void* connection, uint64_t stream) {
    while (queued_ < how_.bytes) {
        const auto size = static_cast<uint32_t>(std::min<uint64_t>(piece, how_.bytes - queued_));
        auto* bytes = static_cast<uint8_t*>(std::malloc(size));
        std::memcpy(bytes, content_at(queued_), size);
        queued_ += size;
        if (tndm_add_to_stream_ext(connection, stream, bytes, size, queued_ == how_.bytes ? 1 : 0) != 0) {
            std::free(bytes);
            return;
        }
        if (queued_ < how_.bytes && tndm_get_stream_backlog(connection, stream) >= high_water) {
            if (tndm_request_writable(connection, stream, low_water) != 1) {
                return;
            }
        }
    }
}

void download::on_answer(const uint8_t* data, uint32_t size, bool last) {
    for (uint32_t at = 0; at < size;) {
        const auto part = std::min(piece, size - at);
        result_.intact = result_.intact && std::memcmp(data + at, content_at(result_.bytes + at), part) == 0;
        at += part;
    }
    result_.bytes += size;
    if (last) {
        result_.complete = result_.bytes == how_.bytes;
        done_ = true;
    }
}

outcome download::run(size_t path_count, duration patience) {
    const instant start = world_.now();
    seed_dice(how_.seed);
    start_server();
    start_client(path_count);
    int timer = -1;
    if (how_.trace != nullptr) {
        timer = world_.add_timer([&] {
            print_time_line(how_.trace, world_, world_.now() - start, result_.bytes, {client_, receiving_},
                            {server_, serving_});
            world_.set_timer(timer, world_.now() + how_.trace_interval);
        });
        world_.set_timer(timer, start);
    }
    world_.run_until(done_, start + patience);
    if (timer != -1) {
        world_.remove_timer(timer);
        print_time_line(how_.trace, world_, world_.now() - start, result_.bytes, {client_, receiving_},
                        {server_, serving_});
    }
    result_.seconds = std::chrono::duration<double>(done_ ? world_.now() - start : patience).count();
    return result_;
}

}  // namespace

outcome transfer(std::span<const path_settings> paths, const transfer_settings& how) {
    double mbit = 0;
    duration rtt{0};
    for (const path_settings& path : paths) {
        mbit += path.mbit;
        rtt = std::max(rtt, path.rtt);
    }
    const std::chrono::duration<double> ideal(static_cast<double>(how.bytes) * 8e-6 / mbit);
    const duration patience = std::chrono::minutes(1) + 10 * rtt + std::chrono::duration_cast<duration>(ideal * 10);
    return download(paths, how).run(paths.size(), patience);
}

}  // namespace grid
