#include "common/message_variant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using tandem::message_variant_t;
using variants_t = std::vector<message_variant_t>;

message_variant_t container(msgpack_object_type type) {
    msgpack_object object = {};
    object.type = type;
    return message_variant_t(object);
}

TEST(variant, converts_numbers_and_gives_zero_for_the_rest) {
    EXPECT_EQ(message_variant_t(-5LL).get_uint64(), 0xFFFFFFFFFFFFFFFBu);
    EXPECT_EQ(message_variant_t(-5LL).get_float(), -5.0f);
    EXPECT_EQ(message_variant_t(2.7).get_int64(), 2);
    EXPECT_EQ(message_variant_t(-2.7).get_int64(), -2);
    EXPECT_EQ(message_variant_t(true).get_uint64(), 1u);
    EXPECT_FALSE(message_variant_t(1LL).get_boolean());
    EXPECT_EQ(message_variant_t("7").get_int64(), 0);
    EXPECT_EQ(message_variant_t(7LL).get_string(), "");
    variants_t untouched{message_variant_t(1LL)};
    EXPECT_EQ(message_variant_t(7LL).get_array(untouched), -1);
    EXPECT_EQ(untouched.size(), 1u);
    // Floats beyond the integers stay within them.
    EXPECT_EQ(message_variant_t(1e300).get_int64(), INT64_MAX);
    EXPECT_EQ(message_variant_t(-1e300).get_int64(), INT64_MIN);
    EXPECT_EQ(message_variant_t(9.3e18).get_uint64(), 9300000000000000000u);
    EXPECT_EQ(message_variant_t(1.8446744073709552e19).get_uint64(), UINT64_MAX);
    EXPECT_EQ(message_variant_t(std::nan("")).get_int64(), 0);
}

TEST(variant, copies_own_what_they_copy_and_views_stay_views) {
    std::string text("abc");
    message_variant_t owner(text);
    message_variant_t copy(owner);
    message_variant_t assigned(std::string(100, 'x'));
    assigned = owner;
    text = "xyz";
    owner.assign("longer than before");
    EXPECT_EQ(copy.get_string(), "abc");
    EXPECT_EQ(assigned.get_string(), "abc");
    unsigned int length = 0;
    EXPECT_STREQ(copy.get_cstr(length), "abc");

    const char bytes[] = "view";
    msgpack_object object = {};
    object.type = MSGPACK_OBJECT_STR;
    object.via.str = {4, bytes};
    const message_variant_t view(object);
    const message_variant_t view_copy(view);
    EXPECT_EQ(view_copy.get_cstr(length), bytes);
}

TEST(variant, survives_self_assignment_moves_and_its_own_bytes_as_source) {
    message_variant_t value("hello");
    value = *&value;
    unsigned int length = 0;
    value.assign(value.get_cstr(length) + 1, 3);
    EXPECT_EQ(value.get_string(), "ell");
    message_variant_t moved(std::move(value));
    EXPECT_EQ(moved.get_string(), "ell");
    EXPECT_EQ(value.type(), MSGPACK_OBJECT_NIL);
    value = std::move(moved);
    EXPECT_EQ(value.get_string(), "ell");
    value.assign(value.get_cstr(length), 3);
    value.assign(static_cast<const unsigned char*>(nullptr), 4);
    EXPECT_EQ(value.get_string(), "ell");
    value.assign(static_cast<const unsigned char*>(nullptr), 0);
    EXPECT_EQ(value.type(), MSGPACK_OBJECT_BIN);
    EXPECT_EQ(message_variant_t(static_cast<const char*>(nullptr), -1).type(), MSGPACK_OBJECT_STR);
}

TEST(variant, compares_texts_by_its_own_length_but_tags_whole) {
    const message_variant_t tag("tx");
    EXPECT_TRUE(tag == "tx");
    EXPECT_TRUE(tag == "tx_t");
    EXPECT_TRUE(tag == std::string("tx_t"));
    EXPECT_FALSE(tag == "t");
    EXPECT_TRUE(tag.is_text("tx"));
    EXPECT_FALSE(tag.is_text("tx_t"));
    EXPECT_FALSE(tag.is_text("t"));
    const auto* bytes = reinterpret_cast<const unsigned char*>("tx");
    const message_variant_t binary(bytes, 2);
    EXPECT_FALSE(binary == "tx");
    EXPECT_FALSE(binary.is_text("tx"));
    EXPECT_FALSE(binary == tag);
    EXPECT_TRUE(message_variant_t(UINT64_MAX + 0ULL) == -1LL);
    EXPECT_TRUE(message_variant_t(2.0f) == 2LL);
    EXPECT_FALSE(message_variant_t(1LL) == true);
}

// Each of these is less than those of the next line, and equivalent to those of its own; equivalent keys of a map stay
// in the order they came.
TEST(variant, orders_by_kind_then_number_or_bytes) {
    const auto binary = [](const char* bytes, unsigned int size) {
        return message_variant_t(reinterpret_cast<const unsigned char*>(bytes), size);
    };
    const std::vector<variants_t> classes = {
        {{}},
        {-1e300},
        {INT64_MIN + 0LL},
        {-4LL, -4.0, -4.0f},
        {-1.5},
        {0LL, false, -0.0},
        {0.5},
        {1LL, true, 1.0f},
        {INT64_MAX + 0LL},
        {9223372036854775808ULL},
        {UINT64_MAX - 1ULL},
        {UINT64_MAX + 0ULL},
        {"", binary("", 0)},
        {std::string(1, '\0'), binary("\0", 1)},
        {"a", binary("a", 1)},
        {std::string("a\0", 2), binary("a\0", 2)},
        {"\xFF", binary("\xFF", 1)},
        {container(MSGPACK_OBJECT_ARRAY), container(MSGPACK_OBJECT_MAP), container(MSGPACK_OBJECT_EXT)}};
    message_variant_t::map_t map;
    for (size_t i = classes.size(); i-- > 0;) {
        for (const message_variant_t& a : classes[i]) {
            map.emplace(a, static_cast<long long>(map.size()));
            for (size_t j = 0; j < classes.size(); ++j) {
                for (const message_variant_t& b : classes[j])
                    EXPECT_EQ(a < b, i < j) << i << " " << a.type() << ", " << j << " " << b.type();
            }
        }
    }
    for (auto at = map.begin(), next = std::next(at); next != map.end(); at = next++) {
        EXPECT_TRUE(at->first < next->first || at->second.get_int64() < next->second.get_int64());
    }
}

}  // namespace
