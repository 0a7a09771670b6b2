#include "tests/context/fixture.h"

namespace {

using strings = std::vector<std::string>;

class server_side : public linked {
  protected:
    server_side() : linked(true) {}
    void SetUp() override { connect(); }
    // What the server sends in answer to a control message.
    std::string answer(const std::string& body, bool fin = false) {
        const std::string before = fake::sent(connection_, 1);
        fake::deliver(connection_, 0, frame(body), fin);
        return fake::sent(connection_, 1).substr(before.size()) + fake::sent(connection_, 0);
    }
};

class client_side : public linked {
  protected:
    void SetUp() override { connect(); }
    void acknowledge(const std::string& body, bool fin = false) { fake::deliver(connection_, 1, frame(body), fin); }
};

const std::string accepted("\xA4HSAK\x82\xA1r\x00\xA1s\xA0", 12);
std::string acknowledgement(const std::string& code) {
    return "\xA4HSAK\x81\xA1r" + code;
}

TEST_F(server_side, takes_the_last_of_each_text_and_whole_keys_only) {
    // "m" before "i", an unknown key, a longer key that begins like one, and "i" twice.
    EXPECT_EQ(answer("\xA4HSRQ\x86\xA1m\xA1"
                     "4\xA1i\xA1"
                     "0\xA1z\xA1"
                     "9\xA2ii\xA1"
                     "8\xA1i\xA1"
                     "1\xA1"
                     "c\x05"),
              frame(accepted));
    EXPECT_EQ(probe_->take_log(), strings{"authorize 1,,,4"});
    EXPECT_TRUE(probe_->was_handled);
    EXPECT_TRUE(probe_->link_ready());
    EXPECT_FALSE(fake::stream(connection_, 0).fin);
    // Nothing of a handshake is handled twice, and a server starts neither keep-alive nor reports.
    EXPECT_EQ(answer("\xA4HSRQ\x80"), frame(accepted));
    EXPECT_FALSE(probe_->was_handled);
    EXPECT_EQ(connection_->keep_alives, 0);
    EXPECT_EQ(loop_.count(fake::watcher_t::timer), 0u);
}

TEST_F(server_side, ends_the_stream_behind_a_refusal_with_16_bits_of_the_code) {
    probe_->accept = false;
    probe_->code = 70000;
    probe_->message = "no";
    EXPECT_EQ(answer("\xA4HSRQ"), frame(std::string("\xA4HSAK\x82\xA1r\xCD\x11\x70\xA1s\xA2no")));
    EXPECT_EQ(probe_->take_log(), strings{"authorize ,,,"});
    EXPECT_TRUE(fake::stream(connection_, 0).fin);
    EXPECT_FALSE(probe_->is_authorized());
    EXPECT_FALSE(probe_->link_ready());
}

TEST_F(server_side, answers_with_the_end_when_the_request_came_with_it) {
    EXPECT_EQ(answer("\xA4HSRQ\x80", true), frame(accepted));
    EXPECT_TRUE(fake::stream(connection_, 0).fin);
    EXPECT_TRUE(probe_->is_authorized());
}

TEST_F(server_side, ignores_what_is_no_request) {
    for (const std::string& body :
         {std::string("\xA4HSAK\x80"), std::string("\xA2HS\x80"), std::string("\xA5HSRQx"), std::string("\xC4\x04HSRQ"),
          std::string("\x05"), std::string("\xC1"), std::string("\xDD\xFF\xFF\xFF\xFF"), std::string("\xA4PATH")}) {
        EXPECT_EQ(answer(body), "") << testing::PrintToString(body);
        EXPECT_FALSE(probe_->was_handled);
    }
    fake::deliver(connection_, 0, std::string("\0\xA4HSRQ", 6));
    EXPECT_TRUE(probe_->take_log().empty());
    EXPECT_FALSE(probe_->is_authorized());
    EXPECT_EQ(connection_->deletions, 0);
}

TEST_F(client_side, starts_keep_alive_and_reports_once_authorised) {
    EXPECT_FALSE(probe_->link_ready());
    EXPECT_EQ(printed([&] { acknowledge(accepted.substr(0, 11) + "\xA2ok"); }),
              "[on_received_control_packet:1090] tndm enable keep alive. \n");
    EXPECT_EQ(probe_->take_log(), strings{"acked 0 ok"});
    EXPECT_TRUE(probe_->link_ready());
    EXPECT_EQ(fake::calls(), strings{"enable_keep_alive 0 0"});
    const auto timers = loop_.watchers(fake::watcher_t::timer);
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_TRUE(timers[0].started);
    EXPECT_EQ(timers[0].delay, 0u);
    EXPECT_EQ(timers[0].period, 500000u);
    acknowledge(acknowledgement("\x01"));
    EXPECT_FALSE(probe_->was_handled);
    // Bound again it stays authorised, and its reports wait for the next start.
    probe_->reset(fake::instance(), connection_, loop_.handle(), 500000, "tndm");
    EXPECT_TRUE(probe_->is_authorized());
    EXPECT_FALSE(probe_->link_ready());
    EXPECT_EQ(loop_.count(fake::watcher_t::timer), 0u);
}

TEST_F(client_side, takes_65536_for_0_and_65535_for_minus_1) {
    acknowledge(acknowledgement(std::string("\xCE\x00\x00\xFF\xFF", 5)));
    EXPECT_EQ(probe_->take_log(), strings{"acked -1 "});
    EXPECT_FALSE(probe_->is_authorized());
    acknowledge(acknowledgement(std::string("\xCE\x00\x01\x00\x00", 5)));
    EXPECT_TRUE(probe_->is_authorized());
}

TEST_F(client_side, answers_a_refusal_or_an_ended_stream_with_the_end) {
    acknowledge("\xA4HSAK\xC0");
    EXPECT_EQ(probe_->take_log(), strings{"acked -1 "});
    EXPECT_FALSE(probe_->is_authorized());
    EXPECT_TRUE(probe_->was_handled);
    EXPECT_EQ(fake::sent(connection_, 1), std::string(1, '\0'));
    EXPECT_TRUE(fake::stream(connection_, 1).fin);
}

TEST_F(client_side, authorised_by_the_streams_last_bytes_starts_nothing) {
    acknowledge(acknowledgement(std::string(1, '\0')), true);
    EXPECT_TRUE(probe_->is_authorized());
    EXPECT_TRUE(fake::stream(connection_, 1).fin);
    EXPECT_EQ(connection_->keep_alives, 0);
    EXPECT_EQ(loop_.count(fake::watcher_t::timer), 0u);
    EXPECT_EQ(connection_->deletions, 1);
}

TEST_F(client_side, ignores_a_request) {
    acknowledge("\xA4HSRQ\x80");
    EXPECT_FALSE(probe_->was_handled);
    EXPECT_TRUE(probe_->take_log().empty());
}

}  // namespace
