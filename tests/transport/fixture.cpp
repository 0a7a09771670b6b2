#include "tests/transport/fixture.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "platform/tndm/quic/credentials.h"
#include "tests/quic_tls/certificates.h"

namespace transport_test {

bytes_t random_content(size_t size, uint32_t seed) {
    std::vector<uint64_t> words(size / 8 + 1);
    std::generate(words.begin(), words.end(), std::mt19937_64(seed));
    const auto* const bytes = reinterpret_cast<const uint8_t*>(words.data());
    return {bytes, bytes + size};
}

namespace {

identity make_identity(const std::string& name) {
    static const tndm::temporary_folder folder;
    const tndm::private_key key;
    const tndm::certificate cert(key, {});
    identity made{folder.write(name + ".crt", cert.pem()), folder.write(name + ".key", key.pem()), {}};
    std::string error;
    made.pin = tndm::server_credentials::load(made.cert, made.key, error)->pin();
    return made;
}

}  // namespace

const identity& identity::own() {
    static const identity made = make_identity("own");
    return made;
}

const identity& identity::other() {
    static const identity made = make_identity("other");
    return made;
}

// --- side ---

side::side(const settings& s) : settings_(s), loop_(s.loop != nullptr ? s.loop : std::make_shared<loop_thread>()) {
    const st_tndm_instance_t record{s.streams, s.congestion, false, 0, 256 * 1024, loop_->get()};
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

void side::expect_content(void* connection, uint64_t stream, const bytes_t& expected) {
    ASSERT_TRUE(received(connection, stream, expected.size(), true))
        << "stream " << stream << ": " << size(connection, stream) << " of " << expected.size();
    EXPECT_TRUE(content(connection, stream) == expected) << "stream " << stream;
}

uint64_t side::size(void* connection, uint64_t stream) {
    return look([&] { return connections[connection].streams[stream].size; });
}

size_t side::live() {
    return look([&] {
        return static_cast<size_t>(
            std::count_if(established.begin(), established.end(), [&](void* each) { return !connections[each].over; }));
    });
}

uint64_t side::send(void* connection, const bytes_t& content, bool fin, bool one_way) {
    const uint64_t stream = open(connection, one_way);
    EXPECT_NE(stream, ~uint64_t{0});
    EXPECT_EQ(write(connection, stream, content, fin), 0);
    return stream;
}

void side::write_pieces(void* connection, uint64_t stream, const bytes_t& content, const std::function<size_t()>& piece,
                        bool empty_end) {
    for (size_t at = 0; at < content.size();) {
        const size_t take = std::min(content.size() - at, piece());
        const bool last = at + take == content.size() && !empty_end;
        ASSERT_EQ(tndm_add_to_stream(connection, stream, &content[at], static_cast<uint32_t>(take), last), 0);
        at += take;
    }
    ASSERT_TRUE(!empty_end || write(connection, stream, {}, true) == 0);
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

// --- callbacks ---

// Null when another thread is destroying the instance, whose user data are gone then.
template <typename R>
side* side::note(void* instance, R&& change) {
    side* const self = static_cast<side*>(tndm_get_instance_userdata(instance));
    if (self != nullptr) {
        const std::lock_guard lock(self->mutex_);
        change(*self);
        self->changed_.notify_all();
    }
    return self;
}

template <typename... T, typename R>
void side::tell(void* instance, std::function<void(T...)> side::*heard, R&& change, std::type_identity_t<T>... what) {
    side* const self = note(instance, std::forward<R>(change));
    if (self != nullptr && self->*heard) {
        (self->*heard)(what...);
    }
}

void side::established_cb(void* instance, const st_tndm_connection_id_t* id, void* connection) {
    const auto change = [&](side& self) {
        self.connections[connection].id.assign(id->id, id->id + id->length);
        self.established.push_back(connection);
    };
    tell(instance, &side::on_established, change, connection);
}

void side::disconnected_cb(void* instance, const st_tndm_connection_id_t* id, void* connection) {
    const auto change = [&](side& self) {
        auto& record = self.connections[connection];
        EXPECT_EQ(record.id, bytes_t(id->id, id->id + id->length));
        EXPECT_FALSE(record.over) << "told twice that a connection is over";
        record.over = true;
    };
    tell(instance, &side::on_disconnected, change, connection);
}

void side::data_cb(void* instance, void* connection, uint64_t stream, int fin, const uint8_t* data, uint32_t len,
                   int*) {
    const auto change = [&](side& self) {
        auto& record = self.connections[connection];
        EXPECT_FALSE(record.id.empty()) << "data before the connection was announced";
        EXPECT_FALSE(record.over) << "data of a connection that is over";
        auto& to = record.streams[stream];
        EXPECT_FALSE(to.fin) << "data behind the end of a stream";
        if (self.keep_content) {
            to.bytes.insert(to.bytes.end(), data, data + len);
        }
        to.size += len;
        to.fin = fin != 0;
    };
    tell(instance, &side::on_data, change, connection, stream, fin != 0, data, len);
}

int side::create_path_cb(void* instance, const char* path) {
    tell(
        instance, &side::on_create_path, [](side&) {}, path);
    return tndm_open_socket(AF_INET, 0, path);
}

int side::path_broken_cb(void* instance, const char* path, int socket) {
    tndm_close_socket(socket);
    tell(
        instance, &side::on_path_broken, [](side&) {}, path);
    return 0;
}

void side::statistics_cb(void* instance, void*, uint64_t rtt, uint64_t window, uint64_t, uint64_t rate, uint64_t) {
    note(instance, [&](side& self) { self.statistics.push_back({rtt, window, rate}); });
}

void side::writable_cb(void* instance, void* connection, uint64_t stream) {
    tell(
        instance, &side::on_writable, [&](side& self) { self.writable.emplace_back(connection, stream); }, connection,
        stream);
}

void side::problem_cb(void* instance, int code, const char* text) {
    tell(
        instance, &side::on_problem, [&](side& self) { self.problems.emplace_back(code, text); }, code);
}

// --- the two kinds ---

server_side::server_side(const settings& s, uint16_t port, const char* address)
    : side(s), socket_(tndm_open_socket(strchr(address, ':') != nullptr ? AF_INET6 : AF_INET, port, address)) {
    sockaddr_in6 own{};  // the port stands at the same place in both families
    socklen_t length = sizeof own;
    getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &length);
    port_ = ntohs(own.sin6_port);
}

server_side::~server_side() {
    destroy();
    tndm_close_socket(socket_);
}

int server_side::start() {
    st_tndm_server_t record{};
    fill(record);
    record.cert = identity::own().cert.c_str();
    record.key = identity::own().key.c_str();
    return tndm_start_server(instance(), socket_, &record);
}

int client_side::start(uint16_t port, const std::string& host) {
    st_tndm_client_t record{};
    fill(record);
    std::strncpy(record.text, settings_.trust.c_str(), sizeof record.text - 1);
    record.param = settings_.linger_seconds;
    record.calculate_param = settings_.statistics_ms;
    record.create_path = create_path_cb;
    record.path_broken = path_broken_cb;
    record.statistics = statistics_cb;
    tndm_set_problem_callback(instance(), problem_cb);
    if (settings_.schedule != nullptr) {
        EXPECT_EQ(tndm_set_schedule(instance(), settings_.schedule), 0);
    }
    return tndm_start_client(instance(), host.c_str(), port, &record);
}

void client_side::run(uint16_t port, const std::vector<std::string>& paths, const std::string& host) {
    ASSERT_EQ(start(port, host), 0);
    for (const auto& path : paths) {
        ASSERT_EQ(add(path), 0);
    }
}

// --- pair_test ---

void pair_test::start(const std::vector<std::string>& paths, const settings& of_client, const settings& of_server) {
    if (server == nullptr) {
        server = std::make_unique<server_side>(of_server);
        ASSERT_EQ(server->start(), 0);
    }
    client = std::make_unique<client_side>(of_client);
    client->run(net != nullptr ? net->port() : server->port(), paths);
    at_client = client->connected();
    at_server = server->connected();
    ASSERT_NE(at_client, nullptr);
    ASSERT_NE(at_server, nullptr);
    ASSERT_TRUE(eventually([&] {
        return server->carried_paths(at_server).size() == paths.size() &&
               client->carried_paths(at_client).size() == paths.size();
    }));
}

void pair_test::start_over(const std::vector<std::string>& paths, const conditions& everywhere,
                           const settings& of_client, network::tap_t tap) {
    reset();
    server = std::make_unique<server_side>();
    net = std::make_unique<network>(server->port(), everywhere, std::move(tap));
    ASSERT_EQ(server->start(), 0);
    start(paths, of_client);
}

void pair_test::exchange(size_t bytes, unsigned streams) {
    std::vector<std::pair<uint64_t, bytes_t>> up, down;
    std::mt19937 random(static_cast<uint32_t>(bytes) + streams);
    for (unsigned i = 0; i < 2 * streams; ++i) {
        void* const from = i % 2 == 0 ? at_client : at_server;
        auto content = random_content(bytes / 2 + random() % (bytes / 2 + 1), i);
        const uint64_t stream = side::open(from, i % 4 < 2);
        side::write_pieces(
            from, stream, content, [&] { return 1 + random() % 100000; }, i % 3 == 0);
        (i % 2 == 0 ? up : down).emplace_back(stream, std::move(content));
    }
    for (const auto& [stream, content] : up) {
        server->expect_content(at_server, stream, content);
    }
    for (const auto& [stream, content] : down) {
        client->expect_content(at_client, stream, content);
    }
}

}  // namespace transport_test
