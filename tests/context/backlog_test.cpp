// Congestion detection over the backlog of a real connection.
#include "context/connection_context.h"
#include "tests/transport/fixture.h"

namespace transport_test {
namespace {

class backlog : public pair_test {};

TEST_F(backlog, its_trend_rises_while_more_is_queued_than_sent_and_falls_afterwards) {
    start_over(two_paths, [](conditions& c) { c.mbit = 16; });
    tandem::connection_context_t context;
    context.reset(client->instance(), at_client, client->loop(), 0, "test");
    const auto detection = context.create_congestion_detection(60'000);
    const uint64_t stream = side::open(at_client);
    const bytes_t chunk(200'000, 'x');
    for (int i = 0; i < 20; ++i) {
        const uint64_t before = tndm_get_data_sent(at_client);
        ASSERT_EQ(tndm_add_to_stream(at_client, stream, chunk.data(), static_cast<uint32_t>(chunk.size()), 0), 0);
        ASSERT_TRUE(eventually([&] { return tndm_get_data_sent(at_client) > before; }));
        context.update_cg();
    }
    EXPECT_GT(detection->trend, 0);
    detection->reset(0);
    ASSERT_TRUE(eventually([&] {
        context.update_cg();
        return tndm_get_bytes_queued(at_client) == tndm_get_data_sent(at_client);
    }));
    EXPECT_LT(detection->trend, 0);
    EXPECT_GT(detection->span, 0);
    reset();
}

}  // namespace
}  // namespace transport_test
