#include "link/link.h"

#include "tests/context/fixture.h"

namespace {

using strings = std::vector<std::string>;

class client : public linked {};

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
    EXPECT_EQ(printed([&] { EXPECT_EQ(link_.create(options_, loop_.handle()), 0); }),
              "[create:859]TNDM client instance started!\n");
    EXPECT_EQ(fake::calls(),
              (strings{"create_instance", "set_writable_callback", "set_problem_callback", "start_client host 443"}));
    const fake::instance_t& made = *fake::instance();
    EXPECT_EQ(made.record.param_a, 1024u);
    EXPECT_EQ(made.record.param_b, 0x100000u);
    EXPECT_EQ(made.record.param_c, 1400u);
    EXPECT_STREQ(made.record.congestion_control, "bbr");
    EXPECT_EQ(made.record.loop, loop_.handle());
    EXPECT_EQ(std::string(made.client.text), std::string(127, 'x'));
    EXPECT_STREQ(made.client.alpn, "tndm");
    EXPECT_EQ(made.client.param, 7u);
    EXPECT_EQ(made.client.calculate_param, 250u);
    EXPECT_NE(made.client.statistics, nullptr);
}

TEST_F(server, opens_its_socket_and_starts) {
    options_.cert = "c.pem";
    options_.key = "k.pem";
    options_.listen_port = 0x30000 + 5;
    EXPECT_EQ(printed([&] { EXPECT_EQ(link_.create(options_, loop_.handle()), 0); }),
              "[create:884]TNDM server instance started! (Cert:c.pem, Key:k.pem)\n");
    const strings calls = fake::calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[2], "open_socket 2 5 -");
    const std::string socket = calls[3].substr(std::string("start_server ").size());
    fake::clear_calls();
    link_.destroy();
    link_.destroy();
    EXPECT_EQ(fake::calls(), (strings{"destroy_instance", "close_socket " + socket}));
    EXPECT_FALSE(loop_.broken());
}

TEST_F(client, refuses_to_be_created_twice_but_may_be_created_again) {
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    fake::clear_calls();
    EXPECT_EQ(printed([&] { EXPECT_EQ(link_.create(options_, nullptr), -1); }),
              "[create:796]Create Tandem Instance - ERROR! Instance is already created!\n");
    EXPECT_TRUE(fake::calls().empty());
    link_.destroy();
    EXPECT_EQ(link_.create(options_, loop_.handle()), 0);
}

TEST_F(client, adds_and_removes_paths_and_makes_their_sockets) {
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(link_.path_add("eth0"), -1);
                  EXPECT_EQ(link_.path_del("eth0"), 0);
              }),
              "[path_add:928]Adding path - Failed! (eth0)\n[path_del:937]Deleting path - eth0\n");
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    EXPECT_EQ(link_.path_add(nullptr), -1);
    EXPECT_EQ(link_.path_del(nullptr), -1);
    fake::clear_calls();
    EXPECT_EQ(printed([&] { EXPECT_EQ(link_.path_add("eth0"), 0); }),
              "[path_add:924]Adding path - Successfully. (eth0)\n");
    const st_tndm_client_t& record = fake::instance()->client;
    int socket = 0;
    EXPECT_EQ(printed([&] { socket = record.create_path(nullptr, "eth0"); }),
              "[tndm_create_path:768]Path creating - eth0\n");
    EXPECT_EQ(printed([&] { EXPECT_EQ(record.path_broken(nullptr, "eth0", socket), 0); }),
              text("[tndm_path_broken:775]Path is broken - eth0, socket=%d\n", socket));
    EXPECT_EQ(fake::calls(), (strings{"add_path eth0", "open_socket 2 0 eth0", text("close_socket %d", socket)}));
}

TEST_F(client, opens_a_connection_with_the_marker_and_the_handshake) {
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    options_.status_interval_ms = 0;
    fake::connection_t* c = fake::connect("tndm");
    EXPECT_EQ(printed([&] { fake::establish(c); }),
              text("Connection [%p] - A new connection established. ID: abcd01.\n"
                   "[tndm_connection_established:665]Connection [%p] - Recorded a new connection context. ALPN=(*)\n",
                   static_cast<void*>(c), static_cast<void*>(c)));
    EXPECT_EQ(fake::sent(c, 0), marker +
                                    "\x16\xA4HSRQ\x84\xA1i\xA1I\xA1"
                                    "c\xA1"
                                    "C\xA1t\xA1T\xA1m\xA1M");
    EXPECT_EQ(probe_->alpn, "*");
    EXPECT_EQ(probe_->status_interval, 500000u);
    EXPECT_EQ(probe_->is_server, 0u);
}

TEST_F(server, sends_the_marker_only) {
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    fake::connection_t* c = fake::connect("tndm");
    fake::establish(c);
    EXPECT_EQ(fake::sent(c, 1), marker);
    EXPECT_EQ(probe_->is_server, 1u);
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
    const std::string output = printed([&] { fake::establish(refused); });
    EXPECT_NE(
        output.find(text("[tndm_connection_established:650]Connection [%p] - ERROR! No context factory found for ALPN "
                         "(*)! Destroied.\n",
                         static_cast<void*>(refused))),
        std::string::npos);
    EXPECT_EQ(refused->deletions, 1);
    link_.register_connection_context_factory([](void*, void*, const std::string&) { return nullptr; });
    fake::connection_t* null = fake::connect("b");
    EXPECT_NE(printed([&] { fake::establish(null); }).find("[tndm_connection_established:658]"), std::string::npos);
    EXPECT_EQ(null->deletions, 1);
}

TEST_F(client, gives_a_connection_up_when_its_control_stream_or_handshake_cannot_be_sent) {
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    fake::fail("tndm_add_to_stream");
    fake::connection_t* first = fake::connect("tndm");
    EXPECT_NE(printed([&] { fake::establish(first); })
                  .find("[tndm_connection_established:684]" +
                        text("Connection [%p] - ERROR! Failed to establish a control-stream! Destroied.\n",
                             static_cast<void*>(first))),
              std::string::npos);
    EXPECT_EQ(first->deletions, 1);
    fake::heal("tndm_add_to_stream");
    fake::fail("tndm_add_to_stream_ext", 1);
    fake::connection_t* second = fake::connect("tndm");
    EXPECT_NE(printed([&] { fake::establish(second); })
                  .find("[tndm_connection_established:695]" +
                        text("Connection [%p] - ERROR! Failed to send handshake message! Break the connection!\n",
                             static_cast<void*>(second))),
              std::string::npos);
    EXPECT_EQ(second->deletions, 1);
    EXPECT_TRUE(fake::stream(second, 0).fin);
}

TEST_F(client, resets_the_context_of_a_connection_that_is_established_again) {
    connect();
    EXPECT_TRUE(probe_->connection_context_t::link_ready());
    const auto before = probe_;
    fake::establish(connection_);
    EXPECT_EQ(probe_, before);
    EXPECT_EQ(factory_alpns_.size(), 1u);
    EXPECT_FALSE(probe_->connection_context_t::link_ready());
    EXPECT_EQ(probe_->control_stream_id, 4u);
    EXPECT_EQ(fake::sent(connection_, 4).substr(0, 4), marker);
}

TEST_F(client, takes_a_disconnected_context_down_in_order) {
    connect();
    EXPECT_EQ(printed([&] { fake::disconnect(connection_); }),
              text("[tndm_connection_disconnected:711]Connection [%p] - Disconnected! ID: abcd01\n",
                   static_cast<void*>(connection_)));
    EXPECT_EQ(probe_->take_log(), (strings{"stop_status_timer", "on_destroy", "internal_cleanup"}));
    probe_->force_close();
    EXPECT_EQ(fake::count_calls("delete_connection"), 0);
    fake::disconnect(connection_);
    EXPECT_EQ(probe_->take_log(), strings{"stop_status_timer"});
    fake::connection_t* unknown = fake::connect("tndm");
    EXPECT_EQ(printed([&] { fake::deliver(unknown, 1, "x"); }),
              text("[tndm_recv_data:753]Connection [%p] - ERROR! Invalid context.\n", static_cast<void*>(unknown)));
    EXPECT_EQ(unknown->deletions, 1);
}

TEST_F(client, passes_statistics_writable_notices_and_problems_on) {
    options_.transport_calculate_param = 100;
    int problem = 0;
    std::string said;
    link_.set_problem_handler([&](int what, const std::string& why) {
        problem = what;
        said = why;
    });
    connect();
    fake::instance()->client.statistics(fake::instance(), connection_, 1, 2, 3, 4, 5);
    EXPECT_EQ(probe_->take_log(), strings{"statistics 1 2 3 4 5"});
    fake::fire_writable(connection_, 8);
    std::vector<uint64_t> writable;
    probe_->writable_handler_ = [&](uint64_t stream_id) { writable.push_back(stream_id); };
    fake::fire_writable(connection_, 12);
    EXPECT_EQ(writable, std::vector<uint64_t>{12});
    fake::instance()->on_problem(fake::instance(), TNDM_PROBLEM_CERTIFICATE, "pin mismatch");
    EXPECT_EQ(problem, TNDM_PROBLEM_CERTIFICATE);
    EXPECT_EQ(said, "pin mismatch");
    fake::connection_t* unknown = fake::connect("tndm");
    fake::fire_writable(unknown, 0);
    fake::instance()->client.statistics(fake::instance(), unknown, 1, 2, 3, 4, 5);
}

}  // namespace
