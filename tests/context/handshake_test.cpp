#include "tests/context/fixture.h"

namespace {

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
    const std::string request =
        fake::message("HSRQ", {{"m", "4"}, {"i", "0"}, {"z", "9"}, {"ii", "8"}, {"i", "1"}, {"c", 5LL}});
    EXPECT_EQ(answer(request.substr(1)), frame(accepted));
    EXPECT_EQ(probe_->take_log(), strings{"authorize 1,,,4"});
    EXPECT_TRUE(probe_->was_handled);
    EXPECT_TRUE(probe_->link_ready());
    EXPECT_FALSE(fake::stream(connection_, 0).fin);
    // Nothing of a handshake is handled twice, and a server starts neither keep-alive nor reports.
    EXPECT_EQ(answer("\xA4HSRQ\x80"), frame(accepted));
    EXPECT_FALSE(probe_->was_handled);
    EXPECT_EQ(fake::count_calls("enable_keep_alive"), 0);
    EXPECT_EQ(timers(), 0u);
}

TEST_F(server_side, ends_the_stream_behind_a_refusal_with_16_bits_of_the_code) {
    probe_->accept = false;
    probe_->code = 70000;
    probe_->message = "no";
    EXPECT_EQ(answer("\xA4HSRQ"), frame(std::string("\xA4HSAK\x82\xA1r\xCD\x11\x70\xA1s\xA2no")));
    EXPECT_EQ(probe_->take_log(), strings{"authorize ,,,"});
    EXPECT_TRUE(fake::stream(connection_, 0).fin);
    EXPECT_FALSE(probe_->is_authorized() || probe_->link_ready());
}

TEST_F(server_side, answers_with_the_end_when_the_request_came_with_it) {
    EXPECT_EQ(answer("\xA4HSRQ\x80", true), frame(accepted));
    EXPECT_TRUE(fake::stream(connection_, 0).fin);
    EXPECT_TRUE(probe_->is_authorized());
}

TEST_F(server_side, ignores_what_is_no_request) {
    for (const char* body : {"\xA4HSAK\x80", "\xA2HS\x80", "\xA5HSRQx", "\xC4\x04HSRQ", "\x05", "\xC1",
                             "\xDD\xFF\xFF\xFF\xFF", "\xA4PATH"}) {
        EXPECT_EQ(answer(body), "") << testing::PrintToString(body);
        EXPECT_FALSE(probe_->was_handled);
    }
    fake::deliver(connection_, 0, std::string("\0\xA4HSRQ", 6));
    EXPECT_TRUE(probe_->take_log().empty());
    EXPECT_FALSE(probe_->is_authorized());
    EXPECT_EQ(connection_->deletions, 0);
}

TEST_F(client_side, starts_keep_alive_and_reports_once_authorised) {
    acknowledge("\xA4HSRQ\x80");
    EXPECT_FALSE(probe_->was_handled);
    EXPECT_FALSE(probe_->link_ready());
    acknowledge(accepted.substr(0, 11) + "\xA2ok");
    EXPECT_EQ(probe_->take_log(), strings{"acked 0 ok"});
    EXPECT_TRUE(probe_->link_ready());
    EXPECT_EQ(fake::calls(), strings{"enable_keep_alive 0 0"});
    const auto made = loop_.watchers(fake::watcher_t::timer);
    ASSERT_EQ(made.size(), 1u);
    EXPECT_TRUE(made[0].started);
    EXPECT_EQ(made[0].delay, 0u);
    EXPECT_EQ(made[0].period, 500000u);
    acknowledge(acknowledgement("\x01"));
    EXPECT_FALSE(probe_->was_handled);
    // Bound again it stays authorised, and its reports wait for the next start.
    probe_->reset(fake::instance(), connection_, loop_.handle(), 500000, "tndm");
    EXPECT_TRUE(probe_->is_authorized());
    EXPECT_FALSE(probe_->link_ready());
    EXPECT_EQ(timers(), 0u);
}

TEST_F(client_side, takes_65536_for_0_and_65535_for_minus_1) {
    acknowledge(acknowledgement(std::string("\xCE\x00\x00\xFF\xFF", 5)));
    EXPECT_EQ(probe_->take_log(), strings{"acked -1 "});
    EXPECT_FALSE(probe_->is_authorized());
    acknowledge(acknowledgement(std::string("\xCE\x00\x01\x00\x00", 5)));
    EXPECT_TRUE(probe_->is_authorized());
}

TEST_F(client_side, answers_a_refusal_with_the_end) {
    acknowledge("\xA4HSAK\xC0");
    EXPECT_EQ(probe_->take_log(), strings{"acked -1 "});
    EXPECT_FALSE(probe_->is_authorized());
    EXPECT_TRUE(probe_->was_handled);
    EXPECT_EQ(fake::sent(connection_, 1), end_of_stream);
    EXPECT_TRUE(fake::stream(connection_, 1).fin);
}

TEST_F(client_side, authorised_by_the_streams_last_bytes_starts_nothing) {
    acknowledge(acknowledgement(std::string(1, '\0')), true);
    EXPECT_TRUE(probe_->is_authorized());
    EXPECT_TRUE(fake::stream(connection_, 1).fin);
    EXPECT_EQ(fake::count_calls("enable_keep_alive"), 0);
    EXPECT_EQ(timers(), 0u);
    EXPECT_EQ(connection_->deletions, 1);
}

}  // namespace
