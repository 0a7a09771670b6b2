// What a path's text means, and what the kernel's tables say of it.
#include <gtest/gtest.h>

#include "platform/tndm/endpoint/link_table.h"
#include "platform/tndm/endpoint/path_spec.h"
#include "platform/tndm/quic/control_message.h"

namespace tndm {
namespace {

TEST(path_text, is_a_name_and_options_that_exist) {
    std::string error;
    const auto plain = path_spec::parse("fe80::1%eth0", error);
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->backup);
    const auto backup = path_spec::parse("wwan0;backup:yes", error);
    ASSERT_TRUE(backup);
    EXPECT_EQ(backup->name, "wwan0");
    EXPECT_TRUE(backup->backup);
    EXPECT_FALSE(path_spec::parse("wwan0;backup:no", error)->backup);
    for (const std::string wrong : {"", ";backup:yes", "a;", "a;backup", "a;backup:", "a;backup:maybe", "a;Backup:yes",
                                    "a;backup:yes;backup:yes", "a;backup:yes;", "a;weight:2", "a\n"}) {
        EXPECT_FALSE(path_spec::parse(wrong, error)) << wrong;
    }
    EXPECT_FALSE(path_spec::parse(std::string(128, 'a'), error));
}

TEST(control_messages, carry_what_a_lane_is_and_refuse_what_no_version_knows) {
    const auto reread = [](std::vector<uint8_t> bytes) {
        control::decoder in;
        in.push(bytes);
        return in.next();
    };
    const control::hello said{"a", {1, 2, 3}, 4, 77, true, control::policy::redundant};
    auto bytes = control::encode(said);
    const auto hello = std::get<control::hello>(reread(bytes).value());
    EXPECT_EQ(hello.lane, 77U);
    EXPECT_TRUE(hello.backup);
    EXPECT_EQ(hello.schedule, control::policy::redundant);
    EXPECT_EQ(std::get<control::gone>(reread(control::encode(control::gone{1U << 31})).value()).lane, 1U << 31);
    for (const size_t from_end : {1U, 2U}) {  // the schedule, the flag
        auto wrong = bytes;
        wrong[wrong.size() - from_end] = 2;
        EXPECT_FALSE(reread(wrong));
    }
    bytes[3] = 1;  // an earlier version
    EXPECT_FALSE(reread(bytes));
}

class kernel_tables : public ::testing::Test {
  protected:
    using change = link_table::change;
    using kind = change::kind;
    static link_table::host ip(const char* text) { return *link_table::host_of(*endpoint::parse(text, 0)); }
    void SetUp() override {
        table.watch("eth1");
        table.watch("192.0.2.7");
        table.watch("127.0.0.2");
        table.begin_dump();
        table.link(1, "lo", true);
        table.address(1, ip("127.0.0.1"));
        table.link(4, "eth1", true);
        table.address(4, ip("192.0.2.7"));
        table.end_dump();
        table.take_changes();
    }
    link_table table;
};

TEST_F(kernel_tables, tell_which_paths_an_event_concerns) {
    EXPECT_EQ(table.of("eth1"), presence::there);
    EXPECT_EQ(table.of("192.0.2.7"), presence::there);
    EXPECT_EQ(table.of("127.0.0.2"), presence::unknown) << "a whole network may be local: it must be tried";
    table.link(4, "eth1", false);
    EXPECT_EQ(table.take_changes(), (std::vector<change>{{"192.0.2.7", kind::went}, {"eth1", kind::went}}));
    EXPECT_EQ(table.of("eth1"), presence::gone);
    table.link(4, "eth1", false);
    EXPECT_TRUE(table.take_changes().empty());
    table.link(4, "eth1", true);
    EXPECT_EQ(table.take_changes(), (std::vector<change>{{"192.0.2.7", kind::came}, {"eth1", kind::came}}));
    // Away and back before anybody looks.
    table.address_deleted(4, ip("192.0.2.7"));
    table.address(4, ip("192.0.2.7"));
    EXPECT_EQ(table.take_changes().size(), 4U);
    // Of two addresses only one goes: what is bound to the interface lives on.
    table.address(4, ip("192.0.2.8"));
    table.address_deleted(4, ip("192.0.2.7"));
    EXPECT_EQ(table.take_changes(),
              (std::vector<change>{{"eth1", kind::moved, ip("192.0.2.7")}, {"192.0.2.7", kind::went}}));
    // The last one of its family takes what that family carried along.
    table.address(4, ip("2001:db8::8"));
    table.address_deleted(4, ip("192.0.2.8"));
    EXPECT_EQ(table.take_changes(), (std::vector<change>{{"eth1", kind::moved, ip("192.0.2.8"), true}}));
    EXPECT_FALSE(link_table::host_of(*endpoint::parse("fe80::8", 0))) << "no path's address";
    table.route(1);
    EXPECT_TRUE(table.take_changes().empty());
    table.route(4);
    EXPECT_EQ(table.take_changes(), (std::vector<change>{{"eth1", kind::routed}}));
    table.link_deleted(4);
    EXPECT_EQ(table.take_changes(), (std::vector<change>{{"eth1", kind::went}}));
    table.watch("usb0");
    EXPECT_EQ(table.of("usb0"), presence::gone);
    table.link(9, "usb0", true);
    EXPECT_EQ(table.of("usb0"), presence::unknown) << "it may do without an address of its own";
}

TEST_F(kernel_tables, are_made_good_by_a_dump_after_events_were_lost) {
    table.begin_dump();
    table.link(1, "lo", true);
    table.address(1, ip("127.0.0.1"));
    table.link(7, "eth1", true);  // another device by the same name
    table.address(7, ip("192.0.2.9"));
    EXPECT_TRUE(table.take_changes().empty()) << "half a dump says nothing";
    table.end_dump();
    EXPECT_EQ(table.take_changes(),
              (std::vector<change>{{"192.0.2.7", kind::went}, {"eth1", kind::went}, {"eth1", kind::came}}));
}

}  // namespace
}  // namespace tndm
