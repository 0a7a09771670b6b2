#include <cstring>

#include "context/path_state.h"
#include "tests/context/fixture.h"

namespace {

using tandem::path_state_t;

st_tndm_path_info_t path(const char* name, int32_t state) {
    st_tndm_path_info_t record = {};
    std::strncpy(record.name, name, sizeof(record.name) - 1);
    record.state = state;
    record.packets_sent = 1;
    record.packets_received = 2;
    record.rtt = 30999;
    record.delivery_rate = 4;
    record.window = 5;
    record.pacing_rate = 6;
    record.packets_lost = 7;
    record.bytes_resent = 8;
    record.bytes_sent = 1000;
    record.bytes_received = 2000;
    return record;
}

class reporting : public linked {
  protected:
    void SetUp() override { authorise(); }
    // What is reported of these paths.
    std::string sample(const std::vector<st_tndm_path_info_t>& paths) {
        connection_->paths = paths;
        const size_t before = fake::sent(connection_, 0).size();
        EXPECT_EQ(loop_.fire_timers(), 1);
        return fake::sent(connection_, 0).substr(before);
    }
};

TEST_F(reporting, samples_rates_against_the_last_sample) {
    sample({path("a", TNDM_PATH_CONNECTED), path("b", TNDM_PATH_IDLE)});
    const path_state_t first = *probe_->local_paths.at("a");
    EXPECT_EQ(first.state, "CONNECTED");
    EXPECT_EQ(first.rtt, 30u);
    EXPECT_EQ(first.tx + first.rx + first.lo, 0u);
    EXPECT_EQ(first.tx_a, 1000u);
    EXPECT_EQ(first.rx_a, 2000u);
    EXPECT_EQ(first.lo_a, 7u);
    EXPECT_EQ(first.bw_e, 32u);
    EXPECT_EQ(first.pr, 48u);
    EXPECT_EQ(first.cwin, 5u);
    EXPECT_EQ(first.tx_t * 100 + first.rx_t * 10 + first.cr_t, 128u);
    auto record = path("a", TNDM_PATH_DEAD);
    record.bytes_sent += 125000;
    record.bytes_received -= 1;
    record.packets_lost += 3;
    sample({record});
    ASSERT_EQ(probe_->local_paths.size(), 1u);
    const path_state_t& second = *probe_->local_paths.at("a");
    EXPECT_EQ(second.tx, 2000000u);
    EXPECT_EQ(second.rx, 0u);
    EXPECT_EQ(second.rx_a, 1999u);
    EXPECT_EQ(second.lo, 6u);
}

TEST_F(reporting, reports_every_path_in_the_transports_order) {
    const char* const names[] = {"UNKNOWN", "IDLE", "CONNECTED", "CONNECTING", "DEAD", "UNKNOWN", "DEAD"};
    for (int32_t state = -1; state <= 5; ++state) {
        auto record = path("", state);
        std::memset(record.name, 'x', sizeof(record.name));
        sample({record});
        EXPECT_EQ(probe_->local_paths.at(std::string(128, 'x'))->state, names[state + 1]);
    }
    EXPECT_EQ(sample({}), frame("\xA4PATH"));
    const std::string report = sample({path("b", 0), path("a", 1)});
    // Header, tag and the head of the first record, byte by byte.
    const std::string name_b = "\xA2if\xA1" + std::string("b");
    const std::string head = std::string("\xA4PATH\xDE\x00\x10\xA1M\xA4PINF", 15) + name_b +
                             std::string("\xA2st\xA4IDLE\xA3rtt\x1E\xA2tx\x00", 17);
    EXPECT_EQ(report.substr(2, head.size()), head);
    EXPECT_LT(report.find(name_b), report.find("\xA2if\xA1" + std::string("a")));
    EXPECT_LT(report.find("\xA2lo"), report.find("\xA4tx_t"));
}

// The reporter's bytes, handed to a server.
TEST_F(reporting, a_server_stores_what_a_client_reports) {
    const std::string report = sample({path("a", 1), path("b", 2)});
    fake::connection_t* peer = fake::connect("tndm", fake::make_instance(false));
    probe_t server;
    server.reset(peer->instance, peer, loop_.handle(), 0, "tndm");
    const auto push = [&server](const std::string& bytes) {
        server.take_log();
        server.push_stream_data(0, reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
                                0);
        return server.take_log();
    };
    push(marker + report);
    EXPECT_TRUE(server.peer_paths.empty()) << "it is not authorised yet";
    push(frame("\xA4HSRQ\x80"));
    EXPECT_EQ(push(report), strings{"paths"});
    ASSERT_EQ(server.peer_paths.size(), 2u);
    const path_state_t& stored = *server.peer_paths.at("b");
    EXPECT_EQ(stored.state, "CONNECTING");
    EXPECT_EQ(stored.rx_a, 2000u);
    EXPECT_EQ(stored.bw_e, 32u);
    const std::string record = "\x82\xA1M\xA4PINF\xA2if\xA1";
    EXPECT_EQ(push(frame("\xA4PATH" + record + "p" + record + "p" + "\x81\xA1M\xA5PINFx" + record + "r")),
              strings{"paths"});
    ASSERT_EQ(server.peer_paths.size(), 1u);
    EXPECT_EQ(server.peer_paths.count("p"), 1u);
    EXPECT_EQ(push(frame("\xA4PATH")), strings{"no paths"});
    EXPECT_TRUE(server.peer_paths.empty());
}

TEST(path_state, needs_its_tag_and_matches_keys_whole) {
    path_state_t state;
    tandem::message_variant_t::map_t map;
    map.emplace("tx", 1ULL);
    map.emplace("tx_t", 2ULL);
    map.emplace("rtt", 3.9);
    map.emplace("if", "name");
    EXPECT_EQ(state.read_from_map(map), -1);
    EXPECT_EQ(state.name, "name");
    EXPECT_EQ(state.tx, 1u);
    EXPECT_EQ(state.tx_t, 2u);
    EXPECT_EQ(state.rtt, 3u);
    map.emplace("M", "PINF");
    EXPECT_EQ(state.read_from_map(map), 0);
    EXPECT_EQ(state.fill_to_packet(nullptr), -1);
    EXPECT_EQ(state.read_from_packet(nullptr, nullptr), -1);
}

}  // namespace
