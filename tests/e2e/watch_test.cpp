#include <gtest/gtest.h>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/namespaces.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

// What a line says of a path under a key; empty when it does not.
std::string told(const std::string& line, const std::string& path, const std::string& key) {
    size_t at = line.find("{\"name\":\"" + path + "\"");
    at = at == std::string::npos ? at : line.find("\"" + key + "\":", at);
    return at == std::string::npos
               ? ""
               : line.substr(at + key.size() + 3, line.find_first_of(",}", at) - at - key.size() - 3);
}

// An interface that has gone takes its path's subflow with it: the path can only return with another one.
TEST(watch, a_path_is_dead_until_its_next_subflow_which_counts_on) {
    const link_fixture_t link;
    namespaces_t nets;
    process_t server(link.start_server(nets.in_server()));
    auto args = nets.in_client();
    const auto own = link.client_args(9, "10.77.9.1", {"10.77.1.2", "10.77.2.2"});
    args.insert(args.end(), own.begin(), own.end());
    args.push_back("--watch=json");
    process_t client(args);
    const std::string path = "10.77.1.2";
    uint64_t sent = 0, received = 0;
    const auto wait_state = [&](const std::string& state) {
        for (int seconds = 0; seconds < 30; ++seconds) {
            const std::string line = client.wait_line("{\"time\":\"2");
            if (told(line, path, "state").empty()) continue;
            const uint64_t sent_now = std::stoull(told(line, path, "sent_bytes"));
            const uint64_t received_now = std::stoull(told(line, path, "received_bytes"));
            EXPECT_GE(sent_now, sent) << line;
            EXPECT_GE(received_now, received) << line;
            sent = sent_now;
            received = received_now;
            if (told(line, path, "state") == "\"" + state + "\"") return true;
        }
        return false;
    };
    ASSERT_TRUE(wait_state("CONNECTED")) << client.errors();
    nets.take_down(1);
    ASSERT_TRUE(wait_state("DEAD"));
    EXPECT_GT(sent, 2000U);
    nets.bring_up(1);
    ASSERT_TRUE(wait_state("CONNECTED"));
    client.end();
    EXPECT_EQ(client.wait_line("forwarding"), "") << "only objects on standard output";
}

}  // namespace
}  // namespace tandem::test
