#include "common/address.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>

namespace {

std::string text_of(sockaddr_storage address) {
    char text[64];
    EXPECT_GT(t_format_sockaddr_with_port(&address, text, sizeof(text)), 0);
    return text;
}

std::string parsed(const char* host, uint16_t port) {
    sockaddr_storage address;
    std::memset(&address, 0xEE, sizeof(address));
    bool is_name = true;
    EXPECT_EQ(t_get_address(host, port, &address, is_name, true), 0);
    if (!is_name) return text_of(address);
    const sockaddr_storage zero = {};
    EXPECT_EQ(std::memcmp(&address, &zero, sizeof(zero)), 0);
    return "name";
}

TEST(address, reads_wildcards_and_numbers_without_a_lookup) {
    for (const char* wildcard : {"", "*", "*x"})
        EXPECT_EQ(parsed(wildcard, 80), "0.0.0.0:80");
    EXPECT_EQ(parsed("[*]x", 80), ":::80");
    EXPECT_EQ(parsed("10.0.0.1", 8080), "10.0.0.1:8080");
    EXPECT_EQ(parsed("fe80::1", 65535), "fe80::1:65535");
    EXPECT_EQ(parsed("[::1]", 80), "name");
    EXPECT_EQ(parsed("example", 80), "name");
}

TEST(address, looks_a_name_up_or_says_why_not) {
    sockaddr_storage address;
    bool is_name = false;
    ASSERT_EQ(t_get_address("localhost", 443, &address, is_name, false), 0);
    EXPECT_TRUE(is_name);
    EXPECT_TRUE(text_of(address) == "127.0.0.1:443" || text_of(address) == "::1:443") << text_of(address);
    testing::internal::CaptureStderr();
    EXPECT_EQ(t_get_address("[::1]", 443, &address, is_name, false), -1);
    EXPECT_FALSE(is_name);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Cannot get IP address for [::1], err = ", 0), 0u);
}

TEST(address, formats_into_just_enough_room_only) {
    sockaddr_storage address;
    bool is_name = false;
    t_get_address("10.0.0.1", 8080, &address, is_name, true);
    char text[16];
    EXPECT_EQ(t_format_sockaddr_with_port(&address, text, 14), 13);
    EXPECT_STREQ(text, "10.0.0.1:8080");
    EXPECT_EQ(t_format_sockaddr_with_port(&address, text, 13), 0);
    EXPECT_STREQ(text, "10.0.0.1");
    uint16_t port = 1;
    EXPECT_EQ(t_format_sockaddr(&address, text, 8, &port), 0);
    EXPECT_EQ(port, 0);
    EXPECT_EQ(t_format_sockaddr(&address, text, 1, &port), -1);
    EXPECT_EQ(t_format_sockaddr(&address, text, sizeof(text), &port), 1);
    EXPECT_EQ(port, 8080);
    address.ss_family = AF_UNIX;
    EXPECT_EQ(t_format_sockaddr(&address, text, sizeof(text), &port), -1);
}

}  // namespace
