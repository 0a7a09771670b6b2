#include "tests/context/fixture.h"

TEST_F(linked, runs_over_a_transport_without_the_further_functions) {
    ASSERT_FALSE(tndm_set_writable_callback != nullptr);
    link_.set_problem_handler([](int, const std::string&) { FAIL(); });
    connect();
    fake::deliver(connection_, 5, frame("x"));
    EXPECT_EQ(probe_->take_log(), std::vector<std::string>{"stream 5 [x] +0"});
}
