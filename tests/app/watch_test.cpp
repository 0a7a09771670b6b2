#include <fcntl.h>
#include <gtest/gtest.h>

#include "app/watch_output.h"
#include "app/watch_text.h"

namespace tandem::app {
namespace {

using namespace std::chrono_literals;

path_sample_t path(const char* name, const char* state, uint64_t bytes, uint64_t packets, uint64_t lost) {
    path_sample_t made;
    made.name = name;
    made.state = state;
    made.rtt_us = 21'400;
    made.bytes_received = bytes;
    made.bytes_sent = bytes / 10;
    made.packets_sent = packets;
    made.packets_lost = lost;
    return made;
}

// Two samples two seconds apart, whichever second the timer meant.
watch_report_t report(const char* hostile) {
    watch_rates_t rates;
    watch_sample_t sample;
    sample.now = std::chrono::steady_clock::time_point(100s);
    link_sample_t link;
    link.number = 7;
    link.label = "gate\x1b[2J";
    link.since = sample.now - 60s;
    link.paths = {path("eth0", "CONNECTED", 5'000'000, 100, 0)};
    sample.links = {link};
    rates.update(sample);
    sample.now += 2s;
    sample.time = std::chrono::system_clock::time_point(1'795'000'000'250ms);
    sample.links[0].paths = {path("eth0", "CONNECTED", 25'000'000, 300, 1), path(hostile, "DEAD", 0, 100, 200)};
    sample.links[0].peer_paths.emplace_back().name = hostile;
    sample.links[0].peer_paths[0].state = "\"}\n";
    sample.links[0].bytes_queued = 1'500'000;
    sample.links[0].trend = 1'000'000;
    return rates.update(sample);
}

TEST(watch, prints_a_table_that_no_peer_can_spoil) {
    EXPECT_EQ(
        watch_table(report("a very long name \xff\n of a path"), watch_role_t::server),
        "1 client, down 80.0 Mbit/s, up 8.00 Mbit/s\n"
        "client 7 gate?[2J: connected 1 min 2 s, down 80.0 Mbit/s, up 8.00 Mbit/s, queued 1.50 MB, "
        "growing by 800 kbit/s\n"
        "  PATH                      STATE       AT CLIENT   ROUND TRIP          DOWN            UP     LOSS   SHARE\n"
        "  eth0                      CONNECTED   -              21.4 ms   80.0 Mbit/s   8.00 Mbit/s    0.5 %   100 %\n"
        "  a very long name ?? of ~  DEAD        \"}?                  -             0             0  100.0 %     0 "
        "%\n");
}

TEST(watch, prints_json_that_no_peer_can_spoil) {
    const std::string line = watch_json(report("q\"\\\n\xc3\xa9\xc3(\xed\xa0\x80"), watch_role_t::server);
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(line.substr(0, line.find("\"paths\"")),
              "{\"time\":\"2026-11-18T11:06:40.250Z\",\"role\":\"server\",\"connected\":1,\"left_out\":0,"
              "\"down_bytes_per_s\":10000000,\"up_bytes_per_s\":1000000,\"connections\":[{\"number\":7,"
              "\"peer\":\"gate\\u001b[2J\",\"connected_s\":62,\"down_bytes_per_s\":10000000,"
              "\"up_bytes_per_s\":1000000,\"loss_percent\":67,\"queued_bytes\":1500000,"
              "\"queued_trend_bytes_per_s\":100000,\"congestion\":\"growing\",");
    EXPECT_NE(line.find("\"name\":\"q\\\"\\\\\\u000a\xc3\xa9\\ufffd(\\ufffd\\ufffd\\ufffd\",\"state\":\"DEAD\""),
              std::string::npos)
        << line;
    EXPECT_NE(line.find("\"state\":\"\\\"}\\u000a\""), std::string::npos) << line;
}

TEST(watch, shows_the_busiest_of_many) {
    watch_rates_t rates;
    watch_sample_t sample;
    for (uint64_t i = 0; i < 100; ++i) {
        link_sample_t& link = sample.links.emplace_back();
        link.number = i;
        link.paths = {path("p", "CONNECTED", 1000 * i, 0, 0)};
    }
    sample.now += 1s;
    const watch_report_t made = rates.update(sample);
    ASSERT_EQ(made.links.size(), 64U);
    EXPECT_EQ(made.left_out, 36U);
    EXPECT_EQ(made.links[0].sample.number, 36U);
}

TEST(watch, never_waits_for_its_reader) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const file_t reader(ends[0]), writer(ends[1]);
    const int size = fcntl(ends[1], F_SETPIPE_SZ, 4096);
    watch_output_t output(ends[1], true);
    output.show(std::string(static_cast<size_t>(size) + 10, 'a') + "\n");
    output.show("left out\n");
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0) << "others use it as well";
    std::string all(static_cast<size_t>(size), 0);
    ASSERT_EQ(read(ends[0], all.data(), all.size()), size);
    output.show("next\n");
    all.resize(100);
    all.resize(static_cast<size_t>(read(ends[0], all.data(), all.size())));
    EXPECT_EQ(all, "aaaaaaaaaa\nnext\n");
    EXPECT_EQ(cut_to_screen("one\ntwo\nthree\n", 2, 2), "on\n... 2 more lines\n");
}

}  // namespace
}  // namespace tandem::app
