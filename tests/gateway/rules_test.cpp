#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "forward/stream_set.h"
#include "gateway/attempt_gate.h"
#include "gateway/strangers.h"
#include "gateway/target_rules.h"
#include "gateway/token_bucket.h"
#include "gateway/usage.h"
#include "gateway/user_file.h"
#include "tests/e2e/process.h"

namespace tandem {
namespace {

using rules_without_t = target_rules_t::without_rules_t;

bool allows(const target_rules_t& rules, const target_t& target, const char* address) {
    return rules.allows(target, *ip_network_t::parse(address));
}

TEST(target_rules, the_first_match_decides_and_names_do_not_lead_to_denied_addresses) {
    target_rules_t rules(rules_without_t::allow);
    EXPECT_TRUE(allows(rules, {"a", "tcp", "x", 80}, "10.0.0.1"));
    EXPECT_FALSE(allows(rules, {"a", "tcp", "x", 80}, "169.254.1.1"));
    ASSERT_EQ(rules.add_all("# who may go where\n"
                            "deny  alice *   10.0.0.9      *\n"
                            "allow alice tcp 10.0.0.0/8    80,8000-8100\n"
                            "allow bob   *   *.example.org *\n"
                            "deny  *     *   192.168.0.0/16 *\r\n"
                            "allow carol *   ::ffff:127.0.0.1 22\n"
                            "allow carol *   0.0.0.0/0     *\n"),
              "");
    EXPECT_TRUE(allows(rules, {"alice", "tcp", "x", 8050}, "10.0.0.1"));
    EXPECT_FALSE(allows(rules, {"alice", "tcp", "x", 81}, "10.0.0.1"));
    EXPECT_FALSE(allows(rules, {"alice", "udp", "x", 80}, "10.0.0.1"));
    EXPECT_FALSE(allows(rules, {"alice", "tcp", "x", 80}, "10.0.0.9"));
    EXPECT_TRUE(allows(rules, {"bob", "tcp", "WWW.Example.org.", 1}, "203.0.113.1"));
    EXPECT_FALSE(allows(rules, {"bob", "tcp", "example.org", 1}, "203.0.113.1"));
    EXPECT_FALSE(allows(rules, {"bob", "tcp", "badexample.org", 1}, "203.0.113.1"));
    for (const char* denied :
         {"192.168.1.1", "127.0.0.1", "::1", "fe80::1", "224.0.0.1", "0.0.0.0", "::", "2002:7f00:1::1"})
        EXPECT_FALSE(allows(rules, {"bob", "tcp", "www.example.org", 1}, denied)) << denied;
    EXPECT_TRUE(allows(rules, {"carol", "udp", "x", 22}, "127.0.0.1"));
    EXPECT_FALSE(allows(rules, {"carol", "udp", "x", 23}, "127.0.0.1")) << "a wide network does not name loopback";
    EXPECT_FALSE(allows(rules, {"dave", "tcp", "x", 80}, "203.0.113.1"));
    EXPECT_FALSE(rules.may_resolve({"dave", "tcp", "x", 80}));
    EXPECT_TRUE(rules.may_resolve({"alice", "tcp", "x", 80}));
}

TEST(target_rules, a_fault_is_told_with_its_line) {
    target_rules_t rules(rules_without_t::deny);
    for (const char* wrong : {"allow a tcp x", "permit a tcp x 1", "allow a icmp x 1", "allow a tcp 1.2.3.4/33 1",
                              "allow a tcp x 0x50", "allow a tcp x 90-80", "allow a tcp x 65536", "allow a! tcp x 1"}) {
        EXPECT_EQ(rules.add_all(std::string("\n") + wrong).find("line 2: "), 0U) << wrong;
    }
    EXPECT_TRUE(rules.empty());
}

TEST(attempt_gate, failures_slow_down_their_id_and_source_only) {
    attempt_gate_t gate;
    int64_t now = 1'000'000'000;
    const auto fails = [&](const std::string& source, const std::string& id) {
        const bool begun = gate.begin(source, id, now);
        if (begun) gate.end(source, id, true, now);
        return begun;
    };
    // Right ones cost nothing, however many come from one source.
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(gate.begin("a", "bob", now));
        gate.end("a", "bob", false, now);
    }
    for (int64_t gap = attempt_gate_t::first_gap_us; gap <= attempt_gate_t::longest_gap_us; gap *= 2) {
        EXPECT_TRUE(fails("a", "alice"));
        now += gap - 1;
        EXPECT_FALSE(fails("a", "alice"));
        EXPECT_TRUE(gate.begin_first("a", "bob", now)) << "no neighbour is in the way";
        gate.end_first("a", "bob", false, now);
        ++now;
    }
    // Ids that somebody makes up share what their source may fail.
    int64_t failed = 0;
    for (int i = 0; i < 1000; ++i)
        failed += fails("a", std::to_string(i)) ? 1 : 0;
    EXPECT_GT(failed, 8);
    EXPECT_LE(failed, attempt_gate_t::most_failures);
    EXPECT_TRUE(fails("b", "x"));
    EXPECT_TRUE(gate.begin_first("a", "bob", now));
    gate.end_first("a", "bob", true, now);
    EXPECT_FALSE(gate.begin_first("a", "bob", now)) << "nobody guesses first in a row";
    EXPECT_FALSE(gate.begin_first("b", "bob", now)) << "proved at the other source";
    now += 60'000'000;
    unsigned at_once = 0;
    while (gate.begin("a", std::to_string(at_once), now))
        ++at_once;
    EXPECT_EQ(at_once, attempt_gate_t::most_at_once);
}

TEST(strangers, a_source_has_its_share_in_every_form_of_its_address) {
    strangers_t strangers(3, 2);
    auto one = strangers.take_place(source_of("192.0.2.1"));
    const auto two = strangers.take_place(source_of("::ffff:192.0.2.1"));
    EXPECT_TRUE(one && two);
    EXPECT_FALSE(strangers.take_place(source_of("192.0.2.1")));
    const auto three = strangers.take_place(source_of("2001:db8::1%eth0"));
    EXPECT_TRUE(three);
    EXPECT_FALSE(strangers.take_place(source_of("192.0.2.2"))) << "no more in all";
    one.reset();
    EXPECT_TRUE(strangers.take_place(source_of("192.0.2.1")));
    EXPECT_EQ(source_of("2001:db8::1"), source_of("2001:db8::ffff:0:0:1"));
    EXPECT_NE(source_of("2001:db8::1"), source_of("2001:db8:0:1::1"));
}

TEST(stream_set, stays_small_and_forgets_no_stream_that_was_used) {
    stream_set_t set;
    for (uint64_t id = 1; id < 8 * 3 * stream_set_t::most_runs; id += 8)
        set.insert(id);
    for (uint64_t id = 1; id < 8 * 3 * stream_set_t::most_runs; id += 8)
        ASSERT_TRUE(set.contains(id));
    EXPECT_TRUE(set.contains(5)) << "the oldest gaps are closed";
    EXPECT_FALSE(set.contains(8 * 3 * stream_set_t::most_runs - 3)) << "the newest are not";
    EXPECT_FALSE(set.contains(2));
    set.clear();
    for (const uint64_t id : {8, 0, 4})
        set.insert(id);
    EXPECT_TRUE(set.contains(0) && set.contains(4) && set.contains(8));
    EXPECT_FALSE(set.contains(12));
}

TEST(usage, a_part_never_takes_more_than_the_whole_has) {
    const auto whole = std::make_shared<usage_t>(share_t{3, 3, 3, 3, 3});
    const auto part = std::make_shared<usage_t>(share_t{2, 9, 9, 9, 9}, whole);
    const auto other = std::make_shared<usage_t>(share_t{9, 9, 9, 9, 9}, whole);
    EXPECT_TRUE(part->take(usage_t::streams, 2));
    EXPECT_FALSE(part->take(usage_t::streams));
    EXPECT_FALSE(other->take(usage_t::streams, 2)) << "the whole has one left";
    EXPECT_EQ(other->used(usage_t::streams), 0U);
    auto held = usage_t::hold(other, usage_t::streams);
    EXPECT_TRUE(held);
    held.reset();
    EXPECT_EQ(whole->used(usage_t::streams), 2U);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(part->take_request(0));
    EXPECT_FALSE(part->take_request(0));
    EXPECT_TRUE(part->take_request(400'000));
    EXPECT_FALSE(part->take_request(500'000));
}

TEST(user_file, keeps_hashes_closed_to_others_and_tells_faults) {
    const test::scratch_t scratch;
    const std::string path = scratch.path("users");
    const auto add = [&](const std::string& id, const std::string& secret) {
        return change_user_file(path, [&](user_list_t& users) {
            users.set(id, hash_secret(secret));
            return std::string();
        });
    };
    ASSERT_EQ(add("alice", "one"), "");
    ASSERT_EQ(add("bob", "two"), "");
    user_list_t users;
    ASSERT_EQ(read_user_file(path, users), "");
    EXPECT_EQ(users.users().size(), 2U);
    EXPECT_EQ(users.text().find("one"), std::string::npos);
    EXPECT_TRUE(users.check({"alice", "one", "", ""}));
    EXPECT_FALSE(users.check({"alice", "two", "", ""}));
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    // A service's file, changed by root, stays the service's.
    ASSERT_EQ(geteuid(), 0U) << "needs root: only root gives files away";
    ASSERT_EQ(chown(path.c_str(), 65534, 65533), 0);
    ASSERT_EQ(chmod(path.c_str(), 0400), 0);
    ASSERT_EQ(add("carol", "three"), "");
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 65534U);
    EXPECT_EQ(status.st_gid, 65533U);
    EXPECT_EQ(status.st_mode & 0777, 0400U);
    EXPECT_NE(read_user_file(path, users).find("another user"), std::string::npos) << "a server has its own";
    ASSERT_EQ(read_user_file(path, users, private_to_t::whom_root_serves), "");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    EXPECT_NE(read_user_file(path, users).find("chmod 600"), std::string::npos);
    EXPECT_NE(add("dave", "four"), "");

    const std::string text = users.text();
    EXPECT_EQ(users.read("\nalice nonsense\n").find("line 2: "), 0U);
    EXPECT_EQ(users.read(text + text).find("line 4: alice"), 0U);
    EXPECT_EQ(users.users().size(), 3U) << "a fault changes nothing";
}

}  // namespace
}  // namespace tandem
