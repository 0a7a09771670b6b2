// What a connection tells of its paths.
#include "platform/tndm/endpoint/path_book.h"
#include "tests/transport/fixture.h"

namespace transport_test {
namespace {

using tndm::path_book;

path_book::lane_figures lane(const std::string& name, uint64_t counted, uint64_t rtt_us = 1000, bool answers = true) {
    path_book::lane_figures made;
    made.name = name;
    made.answers = answers;
    made.rtt_us = rtt_us;
    made.window = made.delivery_rate = 100;
    made.counted = {counted, counted, counted, counted, counted, counted};
    return made;
}

TEST(path_book, sums_the_subflows_of_a_path_and_never_counts_backwards) {
    path_book book;
    const std::string a = "a", b = "b", c = "c";
    book.joined(a);
    book.joined(b);
    std::vector<path_book::lane_figures> live = {lane(b, 1, 1000), lane(a, 10, 9000, false)};
    auto told = book.records(live, nullptr);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_STREQ(told[0].name, "a") << "in the order of their first subflow";
    EXPECT_EQ(told[0].state, TNDM_PATH_DEAD) << "it does not answer";
    book.joined(a);
    live.push_back(lane(a, 5, 2000));
    told = book.records(live, nullptr);
    EXPECT_EQ(told[0].state, TNDM_PATH_CONNECTED);
    EXPECT_EQ(told[0].bytes_sent, 15U);
    EXPECT_EQ(told[0].rtt, 2000U) << "of the one that answers";
    EXPECT_EQ(told[0].window, 100U);
    live[1].counted.packets_lost = 0;  // those losses were none
    EXPECT_EQ(book.records(live, nullptr)[0].packets_lost, 15U);
    book.left(live[1]);
    book.left(live[2]);
    live.resize(1);
    told = book.records(live, nullptr);
    EXPECT_EQ(told[0].state, TNDM_PATH_DEAD);
    EXPECT_EQ(told[0].packets_received, 15U);
    EXPECT_EQ(told[0].rtt + told[0].window + told[0].delivery_rate, 0U);
    live[0].backup = true;
    EXPECT_EQ(book.records(live, nullptr)[1].state, TNDM_PATH_CONNECTED) << "nothing else works";
    live.push_back(lane(c, 1));
    EXPECT_EQ(book.records(live, nullptr)[1].state, TNDM_PATH_IDLE);
}

TEST(path_book, lists_what_is_wanted_and_bounds_what_is_not) {
    path_book book;
    book.joined("gone");
    book.left(lane("gone", 7));
    const std::vector<path_book::wish> wishes = {{"new", TNDM_PATH_CONNECTING}, {"gone", TNDM_PATH_DEAD}};
    const auto told = book.records({}, &wishes);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].state, TNDM_PATH_CONNECTING);
    EXPECT_EQ(told[1].bytes_sent, 7U);

    const std::string longest(200, 'x');
    book.joined(longest);
    for (int i = 0; i < 1000; ++i) {
        const std::string name = "hostile " + std::to_string(i);
        book.joined(name);
        book.left(lane(name, 1));
    }
    const auto left = book.records({}, nullptr);
    ASSERT_EQ(left.size(), path_book::max_idle_names + 1);
    EXPECT_EQ(std::string(left[0].name), longest.substr(0, 127)) << "it still has a subflow";
    EXPECT_STREQ(left[1].name, "hostile 968");
}

}  // namespace
}  // namespace transport_test
