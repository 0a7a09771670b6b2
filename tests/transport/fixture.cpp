#include "tests/transport/fixture.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

#include "platform/tndm/quic/credentials.h"
#include "tests/quic_tls/certificates.h"

namespace transport_test {

bytes_t random_content(size_t size, uint32_t seed) {
    bytes_t made(size);
    std::mt19937_64 random(seed);
    size_t at = 0;
    for (; at + 8 <= size; at += 8) {
        const uint64_t value = random();
        std::memcpy(made.data() + at, &value, 8);
    }
    for (; at < size; ++at) {
        made[at] = static_cast<uint8_t>(random());
    }
    return made;
}

namespace {

identity make_identity() {
    static const tndm::temporary_folder folder;
    static int number = 0;
    const std::string name = std::to_string(number++);
    const tndm::private_key key;
    const tndm::certificate cert(key, {});
    identity made{folder.write(name + ".crt", cert.pem()), folder.write(name + ".key", key.pem()), {}};
    std::string error;
    made.pin = tndm::server_credentials::load(made.cert, made.key, error)->pin();
    return made;
}

}  // namespace

const identity& identity::own() {
    static const identity made = make_identity();
    return made;
}

const identity& identity::other() {
    own();
    static const identity made = make_identity();
    return made;
}

// --- side ---

side::side(const settings& s) : settings_(s), loop_(s.loop != nullptr ? s.loop : std::make_shared<loop_thread>()) {
    const st_tndm_instance_t record{s.streams, s.congestion, false, s.first_payload, s.stream_window, loop_->get()};
    instance_ = tndm_create_instance(&record, this);
}

void side::destroy() {
    if (void* const handle = instance_.exchange(nullptr)) {
        tndm_destroy_instance(handle);
    }
}

void* side::connected(milliseconds limit) {
    void* found = nullptr;
    wait(
        [&] {
            for (void* each : established) {
                found = connections[each].over ? found : each;
            }
            return found != nullptr;
        },
        limit);
    return found;
}

bool side::disconnected(void* connection, milliseconds limit) {
    return wait([&] { return connections[connection].over; }, limit);
}

bool side::received(void* connection, uint64_t stream, uint64_t count, bool fin, milliseconds limit) {
    return wait(
        [&] {
            const auto& of = connections[connection].streams[stream];
            return of.size >= count && (!fin || of.fin);
        },
        limit);
}

bytes_t side::content(void* connection, uint64_t stream) {
    return look([&] { return connections[connection].streams[stream].bytes; });
}

uint64_t side::size(void* connection, uint64_t stream) {
    return look([&] { return connections[connection].streams[stream].size; });
}

size_t side::live() {
    return look([&] {
        size_t count = 0;
        for (void* each : established) {
            count += connections[each].over ? 0 : 1;
        }
        return count;
    });
}

uint64_t side::open(void* connection, bool one_way) {
    return tndm_get_next_local_stream_id(connection, one_way);
}

uint64_t side::send(void* connection, const bytes_t& content, bool fin, bool one_way) {
    const uint64_t stream = open(connection, one_way);
    EXPECT_NE(stream, ~uint64_t{0});
    EXPECT_EQ(tndm_add_to_stream(connection, stream, content.data(), static_cast<uint32_t>(content.size()), fin), 0);
    return stream;
}

std::vector<st_tndm_path_info_t> side::paths(void* connection) const {
    st_tndm_path_info_t* records[16];
    const int count = tndm_get_path_info_by_connection(instance_, connection, records, 16);
    std::vector<st_tndm_path_info_t> found;
    for (int i = 0; i < count; ++i) {
        found.push_back(*records[i]);
        free(records[i]);
    }
    return found;
}

std::vector<st_tndm_path_info_t> side::carried_paths(void* connection) const {
    auto found = paths(connection);
    std::erase_if(found, [](const auto& path) { return path.window == 0; });
    return found;
}

// --- callbacks: the instance's user data are gone while another thread destroys it ---

void side::established_cb(void* instance, const st_tndm_connection_id_t* id, void* connection) {
    side* const self = of(instance);
    if (self == nullptr) {
        return;
    }
    self->note([&] {
        self->connections[connection].id.assign(id->id, id->id + id->length);
        self->established.push_back(connection);
    });
    if (self->on_established) {
        self->on_established(connection);
    }
}

void side::disconnected_cb(void* instance, const st_tndm_connection_id_t* id, void* connection) {
    side* const self = of(instance);
    if (self == nullptr) {
        return;
    }
    self->note([&] {
        auto& record = self->connections[connection];
        EXPECT_EQ(record.id, bytes_t(id->id, id->id + id->length));
        EXPECT_FALSE(record.over) << "told twice that a connection is over";
        record.over = true;
    });
    if (self->on_disconnected) {
        self->on_disconnected(connection);
    }
}

void side::data_cb(void* instance, void* connection, uint64_t stream, int fin, const uint8_t* data, uint32_t len,
                   int*) {
    side* const self = of(instance);
    if (self == nullptr) {
        return;
    }
    self->note([&] {
        auto& record = self->connections[connection];
        EXPECT_FALSE(record.id.empty()) << "data before the connection was announced";
        EXPECT_FALSE(record.over) << "data of a connection that is over";
        auto& to = record.streams[stream];
        EXPECT_FALSE(to.fin) << "data behind the end of a stream";
        if (self->keep_content) {
            to.bytes.insert(to.bytes.end(), data, data + len);
        }
        to.size += len;
        to.fin = fin != 0;
        record.order.emplace_back(stream, len);
    });
    if (self->on_data) {
        self->on_data(connection, stream, fin != 0, data, len);
    }
}

int side::create_path_cb(void* opaque, const char* path) {
    side* const self = of(opaque);
    if (self == nullptr) {
        return -1;
    }
    self->note([&] { self->created_paths.emplace_back(path); });
    if (self->on_create_path) {
        self->on_create_path(path);
    }
    return tndm_open_socket(AF_INET, 0, path);
}

int side::path_broken_cb(void* opaque, const char* path, int socket) {
    tndm_close_socket(socket);
    side* const self = of(opaque);
    if (self != nullptr) {
        self->note([&] { self->broken_paths.emplace_back(path); });
        if (self->on_path_broken) {
            self->on_path_broken(path);
        }
    }
    return 0;
}

void side::statistics_cb(void* instance, void*, uint64_t rtt, uint64_t window, uint64_t in_flight, uint64_t rate,
                         uint64_t lost) {
    if (side* const self = of(instance)) {
        self->note([&] { self->statistics.push_back({rtt, window, in_flight, rate, lost}); });
    }
}

void side::writable_cb(void* instance, void* connection, uint64_t stream) {
    if (side* const self = of(instance)) {
        self->note([&] { self->writable.emplace_back(connection, stream); });
        if (self->on_writable) {
            self->on_writable(connection, stream);
        }
    }
}

void side::problem_cb(void* instance, int code, const char* text) {
    if (side* const self = of(instance)) {
        self->note([&] { self->problems.push_back({code, text}); });
        if (self->on_problem) {
            self->on_problem(code);
        }
    }
}

// --- the two kinds ---

server_side::server_side(const settings& s, uint16_t port)
    : side(s), socket_(tndm_open_socket(AF_INET, port, "127.0.0.1")) {
    sockaddr_in own{};
    socklen_t length = sizeof own;
    getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &length);
    port_ = ntohs(own.sin_port);
}

server_side::~server_side() {
    destroy();
    tndm_close_socket(socket_);
}

int server_side::start() {
    st_tndm_server_t record{};
    record.alpn = settings_.alpn;
    record.cert = settings_.shown->cert.c_str();
    record.key = settings_.shown->key.c_str();
    record.on_established = established_cb;
    record.on_disconnected = disconnected_cb;
    record.on_data = data_cb;
    tndm_set_writable_callback(instance(), writable_cb);
    return tndm_start_server(instance(), socket_, &record);
}

int client_side::start(uint16_t port, const std::string& host) {
    st_tndm_client_t record{};
    std::strncpy(record.text, settings_.trust.c_str(), sizeof record.text - 1);
    record.alpn = settings_.alpn;
    record.param = settings_.linger_seconds;
    record.calculate_param = settings_.statistics_ms;
    record.on_established = established_cb;
    record.on_disconnected = disconnected_cb;
    record.on_data = data_cb;
    record.create_path = create_path_cb;
    record.path_broken = path_broken_cb;
    record.statistics = statistics_cb;
    tndm_set_writable_callback(instance(), writable_cb);
    tndm_set_problem_callback(instance(), problem_cb);
    if (settings_.schedule != nullptr) {
        EXPECT_EQ(tndm_set_schedule(instance(), settings_.schedule), 0);
    }
    return tndm_start_client(instance(), host.c_str(), port, &record);
}

// --- pair_test ---

void pair_test::start(const std::vector<std::string>& paths, const settings& client_settings,
                      const settings& server_settings, uint16_t by_port) {
    if (server == nullptr) {
        server = std::make_unique<server_side>(server_settings);
        ASSERT_EQ(server->start(), 0);
    }
    client = std::make_unique<client_side>(client_settings);
    ASSERT_EQ(client->start(by_port != 0 ? by_port : server->port()), 0);
    for (const auto& path : paths) {
        ASSERT_EQ(client->add(path), 0);
    }
    at_client = client->connected();
    at_server = server->connected();
    ASSERT_NE(at_client, nullptr);
    ASSERT_NE(at_server, nullptr);
    ASSERT_TRUE(eventually([&] { return server->carried_paths(at_server).size() == paths.size(); }));
    ASSERT_TRUE(eventually([&] { return client->carried_paths(at_client).size() == paths.size(); }));
}

void pair_test::exchange(size_t bytes, unsigned streams, milliseconds limit) {
    struct flow {
        side* to;
        void* connection;
        uint64_t stream;
        bytes_t content;
    };
    std::vector<flow> flows;
    std::mt19937 random(static_cast<uint32_t>(bytes) + streams);
    for (unsigned i = 0; i < 2 * streams; ++i) {
        const bool up = i % 2 == 0;
        const bool one_way = i % 4 < 2;
        void* const from = up ? at_client : at_server;
        auto content = random_content(bytes / 2 + random() % (bytes / 2 + 1), i);
        const uint64_t stream = side::open(from, one_way);
        ASSERT_NE(stream, ~uint64_t{0});
        for (size_t at = 0; at < content.size();) {
            const size_t take = std::min<size_t>(content.size() - at, 1 + random() % 100000);
            const bool last = at + take == content.size() && i % 3 != 0;
            ASSERT_EQ(tndm_add_to_stream(from, stream, content.data() + at, static_cast<uint32_t>(take), last), 0);
            at += take;
        }
        if (i % 3 == 0) {
            ASSERT_EQ(tndm_add_to_stream(from, stream, nullptr, 0, 1), 0);  // an end without bytes
        }
        flows.push_back({up ? static_cast<side*>(server.get()) : client.get(), up ? at_server : at_client, stream,
                         std::move(content)});
    }
    const auto end = std::chrono::steady_clock::now() + limit;
    for (const flow& each : flows) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
        ASSERT_TRUE(each.to->received(each.connection, each.stream, each.content.size(), true, left))
            << "stream " << each.stream << ": " << each.to->size(each.connection, each.stream) << " of "
            << each.content.size();
        ASSERT_TRUE(each.to->content(each.connection, each.stream) == each.content) << "stream " << each.stream;
    }
}

}  // namespace transport_test
