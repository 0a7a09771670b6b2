#include "tests/e2e/namespaces.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

#include "tests/e2e/link_fixture.h"
#include "tests/e2e/network.h"

namespace tandem::test {
namespace {

// Server and echo service in one namespace, the client with two paths in the other, and a connection through the
// forward.
struct apart_t {
    explicit apart_t(const std::vector<std::string>& paths = {"10.77.1.2", "10.77.2.2"}, const std::string& name = "") {
        if (!name.empty()) nets.make_second_ipv6(name);
        nets.at_server([&] {
            uint16_t port = 0;
            app::file_t listening = listen_tcp(port);
            service.emplace(echo, std::move(listening), port);
        });
        server.emplace(link.start_server(nets.in_server()));
        auto args = nets.in_client();
        const auto own = link.client_args(service->port(), name.empty() ? "10.77.9.1" : name, paths);
        args.insert(args.end(), own.begin(), own.end());
        client.emplace(args);
        forwarded_port = wait_forward(*client);
        nets.at_client([&] { socket = connect_tcp(forwarded_port); });
    }
    ~apart_t() {
        if (!restarted) {
            EXPECT_EQ(client->wait_line("reconnected", std::chrono::milliseconds(0)), "") << "the connection must last";
        }
        client->end();
        server->end();
    }

    link_fixture_t link;
    namespaces_t nets;
    std::optional<service_t> service;
    std::optional<process_t> server;
    std::optional<process_t> client;
    app::file_t socket;
    uint16_t forwarded_port = 0;
    bool restarted = false;  // the server, by a test
};

TEST(two_paths, a_transfer_outlives_either_path_and_an_interface_that_goes_down) {
    using trouble_t = void (*)(namespaces_t&);
    const trouble_t troubles[] = {[](namespaces_t& nets) { nets.swallow(1); },
                                  [](namespaces_t& nets) { nets.swallow(2); },
                                  [](namespaces_t& nets) { nets.take_down(1); }};
    for (const trouble_t trouble : troubles) {
        apart_t apart;
        EXPECT_EQ(exchange(apart.socket.fd(), 1, bulk_bytes, [&] { trouble(apart.nets); }), "");
    }
}

TEST(two_paths, of_two_families_reach_a_name_that_has_both) {
    apart_t apart({"c1", "c2"}, "both.test");
    const auto swap = [&] {
        apart.nets.carry(1);
        apart.nets.take_down(2);
    };
    EXPECT_EQ(exchange(
                  apart.socket.fd(), 8, bulk_bytes, [&] { apart.nets.swallow(1); }, swap),
              "");
}

TEST(two_paths, a_path_that_came_back_carries_when_the_other_one_goes) {
    apart_t apart;
    const auto swap = [&] {
        apart.nets.carry(1);
        apart.nets.swallow(2);
    };
    EXPECT_EQ(exchange(
                  apart.socket.fd(), 4, bulk_bytes, [&] { apart.nets.swallow(1); }, swap),
              "");
}

#ifdef TANDEM_E2E_SLOW
constexpr int rounds = 20;
constexpr std::chrono::milliseconds longest_pause{4000};
#else
constexpr int rounds = 100;
constexpr std::chrono::milliseconds longest_pause{1000};
#endif

// Load through the forward while `trouble` runs, which must not wait for anything that it carries.
void under_load(apart_t& apart, uint64_t seed, std::chrono::milliseconds bound, const std::function<void()>& trouble) {
    apart.nets.limit(1, 100);
    apart.nets.limit(2, 100);
    std::atomic<bool> over{false};
    std::thread troubling([&] {
        EXPECT_NO_THROW(trouble());
        over = true;
    });
    using clock = std::chrono::steady_clock;
    clock::duration pause{};
    clock::time_point last = clock::now();
    const auto room = [&] { return over ? 0 : uint64_t{1} << 16; };
    EXPECT_EQ(exchange(apart.socket.fd(), seed, room,
                       [&](uint64_t) {
                           const auto now = clock::now();
                           pause = std::max(pause, now - last);
                           last = now;
                       }),
              "");
    troubling.join();
    const auto pause_ms = std::chrono::duration_cast<std::chrono::milliseconds>(pause).count();
    std::printf("longest pause: %lld ms\n", static_cast<long long>(pause_ms));
    EXPECT_LT(pause_ms, bound.count());
}

TEST(two_paths, a_restarted_server_is_found_again_under_load) {
    apart_t apart;
    apart.restarted = true;
    const auto restart = [&] {
        apart.server->signal(SIGKILL);
        EXPECT_EQ(apart.server->wait(), -SIGKILL);
        apart.server.emplace(apart.link.start_server(apart.nets.in_server()));
    };
    // What is left of it may lie in the sockets' buffers by then: whether it is whole is a matter of luck.
    exchange(apart.socket.fd(), 8, bulk_bytes, restart);
    ASSERT_EQ(apart.client->wait_line("reconnected"), "reconnected") << apart.client->errors();
    apart.nets.at_client([&] { apart.socket = connect_tcp(apart.forwarded_port); });
    EXPECT_EQ(exchange(apart.socket.fd(), 9, bulk_bytes, [&] { apart.nets.swallow(1); }), "");
}

class named : public ::testing::TestWithParam<std::vector<std::string>> {};

// How long it is away, and how long it is there, is the subject: the path joins again in some rounds, in others it does
// not get so far.
TEST_P(named, an_interface_goes_and_comes_a_hundred_times) {
    apart_t apart(GetParam());
    under_load(apart, 5, longest_pause, [&] {
        for (int round = 0; round < rounds; ++round) {
            apart.nets.take_down(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(10 + 10 * (round % 5)));
            apart.nets.bring_up(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20 + 40 * (round % 4)));
        }
    });
}

INSTANTIATE_TEST_SUITE_P(two_paths, named,
                         ::testing::Values(std::vector<std::string>{"10.77.1.2", "10.77.2.2"},
                                           std::vector<std::string>{"c1", "c2"}),
                         [](const auto& at) { return at.index == 0 ? "by_address" : "by_interface"; });

TEST(two_paths, an_interface_that_changes_its_address_goes_on) {
    apart_t apart({"c1", "c2"});
    under_load(apart, 6, longest_pause, [&] {
        for (const int host : {3, 4, 5, 6}) {
            apart.nets.change_address(1 + host % 2, host);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        }
    });
}

TEST(one_path, outlives_its_interface_going_and_coming) {
    apart_t apart({"c1"});
    under_load(apart, 7, std::chrono::seconds(3), [&] {
        for (int round = 0; round < 5; ++round) {
            apart.nets.take_down(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            apart.nets.bring_up(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        apart.nets.change_address(1, 9);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    });
}

}  // namespace
}  // namespace tandem::test
