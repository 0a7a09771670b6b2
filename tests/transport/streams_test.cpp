// Streams: their ids, their credit, their order, and how a slow reader and a fast writer are held apart.
#include "tests/transport/fixture.h"

namespace transport_test {
namespace {

using streams = pair_test;
constexpr uint64_t none = ~uint64_t{0};

// Far more streams than may be open at once, opened by both sides: every one that ends makes room for another.
TEST_F(streams, credit_comes_back_when_streams_are_over) {
    const settings few{.streams = 16};
    const size_t count = 4000 / scale;
    const auto content_of = [](uint64_t id) { return bytes_t(8, static_cast<uint8_t>(id / 4)); };
    server = std::make_unique<server_side>(few);
    // The answer ends the other direction, so that the stream is over.
    server->on_data = [this](void* connection, uint64_t stream, bool fin, const uint8_t*, uint32_t) {
        if (fin && (stream & 2) == 0) {
            side::write(connection, stream, bytes_t(6), true);
        }
    };
    ASSERT_EQ(server->start(), 0);
    start(one_path, few, few);
    std::vector<uint64_t> opened;
    for (int i = 0; i < 16; ++i) {
        opened.push_back(side::open(at_client));
    }
    EXPECT_EQ(side::open(at_client), none);
    EXPECT_EQ(side::open(at_server) & 1, 1U);
    for (const uint64_t id : opened) {
        ASSERT_EQ(side::write(at_client, id, content_of(id), true), 0);
    }
    for (size_t i = 0; i < count; ++i) {
        const bool one_way = i % 2 == 1;
        uint64_t id = none;
        ASSERT_TRUE(eventually([&] { return (id = side::open(at_client, one_way)) != none; })) << i;
        ASSERT_EQ(side::write(at_client, id, content_of(id), true), 0);
        EXPECT_EQ(id & 3, one_way ? 2U : 0U);
        opened.push_back(id);
    }
    for (const uint64_t id : opened) {
        server->expect_content(at_server, id, content_of(id));
        ASSERT_TRUE((id & 2) != 0 || client->received(at_client, id, 6, true));
    }
    EXPECT_EQ(std::set<uint64_t>(opened.begin(), opened.end()).size(), opened.size()) << "an id was given twice";
}

TEST_F(streams, are_written_only_by_whom_and_while_they_may_be) {
    start(one_path);
    EXPECT_LT(side::write(at_client, 400, {1}), 0) << "never opened";
    EXPECT_LT(side::write(at_client, 1, {1}), 0) << "the peer has not opened it";
    EXPECT_LT(tndm_add_to_stream(at_client, side::open(at_client), nullptr, 1, 0), 0);
    const uint64_t one_way = side::send(at_client, {1, 2, 3}, false, true);
    ASSERT_TRUE(server->received(at_server, one_way, 3, false));
    EXPECT_LT(side::write(at_server, one_way, {1}), 0) << "only its opener writes it";
    const uint64_t both = side::send(at_client, {1, 2, 3}, true);
    EXPECT_LT(side::write(at_client, both, {1}), 0) << "behind the end";
    ASSERT_TRUE(server->received(at_server, both, 3, true));
    EXPECT_EQ(side::write(at_server, both, {1}, true), 0);
    ASSERT_TRUE(client->received(at_client, both, 1, true));
    EXPECT_TRUE(eventually([&] { return side::write(at_server, both, {}, true) < 0; }));
}

// What is handed over belongs to the transport from then on, what is refused stays the caller's. (The address sanitizer
// sees a double free and a leak.)
TEST_F(streams, memory_is_handed_over_only_on_success) {
    start(one_path);
    const uint64_t stream = side::open(at_client);
    bytes_t expected;
    for (uint32_t size : {1U, 100U, 2000U, 70'000U}) {
        auto* memory = static_cast<uint8_t*>(malloc(size));
        std::memset(memory, static_cast<int>(size % 251), size);
        expected.insert(expected.end(), memory, memory + size);
        ASSERT_EQ(tndm_add_to_stream_ext(at_client, stream, memory, size, 0), 0);
    }
    ASSERT_EQ(tndm_add_to_stream_ext(at_client, stream, static_cast<uint8_t*>(malloc(1)), 0, 0), 0);
    ASSERT_EQ(tndm_add_to_stream_ext(at_client, stream, static_cast<uint8_t*>(malloc(1)), 0, 1), 0);
    auto* refused = static_cast<uint8_t*>(malloc(10));
    EXPECT_LT(tndm_add_to_stream_ext(at_client, stream, refused, 10, 0), 0);
    EXPECT_LT(tndm_add_to_stream_ext(nullptr, stream, refused, 10, 0), 0);
    std::memset(refused, 0, 10);
    free(refused);
    server->expect_content(at_server, stream, expected);
}

// A writer that listens to the backlog never has much more queued than it wants to.
TEST_F(streams, a_writer_can_follow_the_backlog) {
    start_over(one_path, {.mbit = 50});
    const uint64_t stream = side::open(at_client);
    constexpr uint64_t low = 64 * 1024;
    constexpr uint64_t piece = 256 * 1024;
    uint64_t total = 0;
    for (size_t seen = 0; total < 6'000'000 / scale; ++seen) {
        ASSERT_EQ(side::write(at_client, stream, random_content(piece, static_cast<uint32_t>(total))), 0);
        total += piece;
        EXPECT_LE(tndm_get_stream_backlog(at_client, stream), low + piece);
        ASSERT_EQ(tndm_request_writable(at_client, stream, low), 0);
        ASSERT_TRUE(client->wait([&] { return client->writable.size() > seen; }));
        EXPECT_LE(tndm_get_stream_backlog(at_client, stream), low);
        client->look([&] {
            EXPECT_EQ(client->writable.size(), seen + 1) << "one request, one callback";
            EXPECT_EQ(client->writable.back(), (std::pair<void*, uint64_t>(at_client, stream)));
        });
    }
    ASSERT_TRUE(server->received(at_server, stream, total, false));
    const size_t told = client->look([&] { return client->writable.size(); });
    EXPECT_EQ(tndm_request_writable(at_client, stream, 0), 0) << "already so: told at once";
    EXPECT_TRUE(client->wait([&] { return client->writable.size() == told + 1; }));
    EXPECT_LT(tndm_request_writable(at_client, 4000, 0), 0);
    ASSERT_EQ(side::write(at_client, stream, {}, true), 0);
    EXPECT_LT(tndm_request_writable(at_client, stream, 0), 0) << "it is never writable again";
}

// A paused stream delivers nothing and stops its writer at its window; the others go on; resumed, nothing is missing.
TEST_F(streams, a_paused_stream_stops_its_writer_and_nobody_else) {
    server = std::make_unique<server_side>();
    // The server outlives the test's own body.
    server->on_data = [paused = none](void* connection, uint64_t stream, bool, const uint8_t*, uint32_t) mutable {
        if (paused == none && stream != 2) {
            paused = stream;
            EXPECT_EQ(tndm_pause_stream(connection, stream, 1), 0);
        }
    };
    ASSERT_EQ(server->start(), 0);
    start(one_path);
    side::send(at_client, {}, true, true);  // other streams wait for the first one
    auto content = bytes_t{1};
    const uint64_t stopped = side::send(at_client, content, false);
    ASSERT_TRUE(server->received(at_server, stopped, 1, false));
    const auto rest = random_content(3'000'000, 9);
    ASSERT_EQ(side::write(at_client, stopped, rest, true), 0);
    const auto other = random_content(4'000'000, 10);
    const uint64_t running = side::send(at_client, other, true);
    server->expect_content(at_server, running, other);
    EXPECT_EQ(server->size(at_server, stopped), 1U) << "delivered while paused";
    EXPECT_GT(tndm_get_stream_backlog(at_client, stopped), 1'000'000U) << "its window grew while it was paused";
    ASSERT_EQ(tndm_pause_stream(at_server, stopped, 0), 0);
    content.insert(content.end(), rest.begin(), rest.end());
    server->expect_content(at_server, stopped, content);
}

}  // namespace
}  // namespace transport_test
