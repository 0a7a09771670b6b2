#include "link/link.h"

#include "tests/context/fixture.h"

namespace {

using client = linked;

class server : public linked {
  protected:
    server() : linked(true) {}
};

TEST_F(client, hands_its_options_over_and_registers_the_notices_before_the_start) {
    options_.client_text = std::string(200, 'x');
    options_.server_port = 0x10000 + 443;
    options_.client_param = 7;
    options_.transport_calculate_param = 250;
    link_.set_problem_handler([](int, const std::string&) {});
    EXPECT_EQ(link_.create(options_, loop_.handle()), 0);
    EXPECT_EQ(fake::calls(),
              (strings{"create_instance", "set_writable_callback", "set_problem_callback", "start_client host 443"}));
    const fake::instance_t& made = *fake::instance();
    EXPECT_EQ(std::string(made.client.text), std::string(127, 'x'));
    EXPECT_EQ(made.client.param, 7u);
    EXPECT_EQ(made.client.calculate_param, 250u);
    EXPECT_NE(made.client.statistics, nullptr);

    fake::clear_calls();
    EXPECT_EQ(link_.create(options_, nullptr), -1) << "it is created already";
    EXPECT_TRUE(fake::calls().empty());
    link_.destroy();
    EXPECT_EQ(link_.create(options_, loop_.handle()), 0);
}

TEST_F(server, opens_its_socket_and_says_only_its_marker_by_itself) {
    options_.listen_port = 0x30000 + 5;
    EXPECT_EQ(link_.create(options_, loop_.handle()), 0);
    const strings calls = fake::calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[2], "open_socket 2 5 -");
    const std::string socket = calls[3].substr(std::string("start_server ").size());
    fake::establish(connection_ = fake::connect("tndm"));
    EXPECT_EQ(fake::sent(connection_, 1), marker);
    EXPECT_EQ(probe_->is_server, 1u);
    fake::clear_calls();
    link_.destroy();
    link_.destroy();
    EXPECT_EQ(fake::calls(), (strings{"destroy_instance", "close_socket " + socket}));
    EXPECT_FALSE(loop_.broken());
}

TEST_F(client, adds_and_removes_paths_and_makes_their_sockets) {
    EXPECT_EQ(link_.path_add("eth0"), -1);
    EXPECT_EQ(link_.path_del("eth0"), 0);
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    EXPECT_EQ(link_.path_add(nullptr), -1);
    EXPECT_EQ(link_.path_del(nullptr), -1);
    fake::clear_calls();
    EXPECT_EQ(link_.path_add("eth0"), 0);
    const st_tndm_client_t& record = fake::instance()->client;
    const int socket = record.create_path(nullptr, "eth0");
    EXPECT_EQ(record.path_broken(nullptr, "eth0", socket), 0);
    EXPECT_EQ(fake::calls(), (strings{"add_path eth0", "open_socket 2 0 eth0", text("close_socket %d", socket)}));
}

TEST_F(client, opens_a_connection_with_the_marker_and_the_handshake) {
    establish();
    EXPECT_EQ(fake::sent(connection_, 0),
              marker + fake::message("HSRQ", {{"i", "I"}, {"c", "C"}, {"t", "T"}, {"m", "M"}}));
    EXPECT_EQ(probe_->alpn, "*");
    EXPECT_EQ(probe_->status_interval, 500000u);
    EXPECT_EQ(probe_->is_server, 0u);
}

TEST_F(server, chooses_the_factory_by_alpn_then_default_then_first) {
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    strings chosen;
    const auto factory = [&](const char* name) {
        return [&chosen, name](void*, void*, const std::string& alpn) {
            chosen.push_back(name + alpn);
            return std::make_shared<probe_t>();
        };
    };
    link_.register_connection_context_factory("b", factory("old:"));
    link_.register_connection_context_factory("b", factory("b:"));
    fake::establish(fake::connect("b"));
    fake::establish(fake::connect(""));
    EXPECT_EQ(factory_alpns_, strings{"*"});
    link_.register_connection_context_factory(nullptr);
    link_.register_connection_context_factory("a", factory("a:"));
    fake::establish(fake::connect("z"));
    EXPECT_EQ(chosen, (strings{"b:b", "a:*"}));

    link_.register_connection_context_factory("a", nullptr);
    link_.register_connection_context_factory("b", nullptr);
    fake::connection_t* refused = fake::connect("b");
    fake::establish(refused);
    EXPECT_EQ(refused->deletions, 1);
    link_.register_connection_context_factory([](void*, void*, const std::string&) { return nullptr; });
    fake::connection_t* null = fake::connect("b");
    fake::establish(null);
    EXPECT_EQ(null->deletions, 1);
}

TEST_F(client, gives_a_connection_up_when_its_control_stream_or_handshake_cannot_be_sent) {
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    for (const auto& [function, after] : {std::pair("tndm_add_to_stream", 0), {"tndm_add_to_stream_ext", 1}}) {
        fake::fail(function, after);
        fake::establish(connection_ = fake::connect("tndm"));
        EXPECT_EQ(connection_->deletions, 1);
        fake::heal(function);
    }
    EXPECT_TRUE(fake::stream(connection_, 0).fin);
}

TEST_F(client, resets_the_context_of_a_connection_that_is_established_again) {
    connect();
    EXPECT_TRUE(probe_->connection_context_t::link_ready());
    const auto before = probe_;
    fake::establish(connection_);
    EXPECT_EQ(probe_, before);
    EXPECT_FALSE(probe_->connection_context_t::link_ready());
    EXPECT_EQ(probe_->control_stream_id, 4u);
    EXPECT_EQ(fake::sent(connection_, 4).substr(0, 4), marker);
}

TEST_F(client, takes_a_disconnected_context_down_in_order) {
    connect();
    fake::disconnect(connection_);
    EXPECT_EQ(probe_->take_log(), (strings{"stop_status_timer", "on_destroy", "internal_cleanup"}));
    probe_->force_close();
    EXPECT_EQ(fake::count_calls("delete_connection"), 0);
    fake::disconnect(connection_);
    EXPECT_EQ(probe_->take_log(), strings{"stop_status_timer"});
    fake::connection_t* unknown = fake::connect("tndm");
    fake::deliver(unknown, 1, "x");
    EXPECT_EQ(unknown->deletions, 1);
}

TEST_F(client, passes_statistics_writable_notices_and_problems_on) {
    options_.transport_calculate_param = 100;
    strings told;
    link_.set_problem_handler(
        [&](int what, const std::string& why) { told.push_back(std::to_string(what) + " " + why); });
    connect();
    fake::instance_t* instance = fake::instance();
    instance->client.statistics(instance, connection_, 1, 2, 3, 4, 5);
    EXPECT_EQ(probe_->take_log(),
              (strings{"statistics 1", "statistics 2", "statistics 3", "statistics 4", "statistics 5"}));
    fake::fire_writable(connection_, 8);
    probe_->writable_handler_ = [&](uint64_t stream_id) { told.push_back(std::to_string(stream_id)); };
    fake::fire_writable(connection_, 12);
    instance->on_problem(instance, TNDM_PROBLEM_CERTIFICATE, "pin mismatch");
    EXPECT_EQ(told, (strings{"12", std::to_string(TNDM_PROBLEM_CERTIFICATE) + " pin mismatch"}));
    fake::connection_t* unknown = fake::connect("tndm");
    fake::fire_writable(unknown, 0);
    instance->client.statistics(instance, unknown, 1, 2, 3, 4, 5);
}

}  // namespace
