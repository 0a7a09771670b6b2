#include "common/message_variant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace {

using tandem::message_variant_t;
using variants_t = std::vector<message_variant_t>;

message_variant_t container(msgpack_object_type type) {
    msgpack_object object = {};
    object.type = type;
    return message_variant_t(object);
}

TEST(variant, converts_numbers_and_gives_zero_for_the_rest) {
    EXPECT_EQ(message_variant_t(0LL).type(), MSGPACK_OBJECT_POSITIVE_INTEGER);
    EXPECT_EQ(message_variant_t(-5LL).type(), MSGPACK_OBJECT_NEGATIVE_INTEGER);
    EXPECT_EQ(message_variant_t(-5LL).get_uint64(), 0xFFFFFFFFFFFFFFFBu);
    EXPECT_EQ(message_variant_t(-5LL).get_float(), -5.0f);
    EXPECT_EQ(message_variant_t(2.7).get_int64(), 2);
    EXPECT_EQ(message_variant_t(-2.7).get_int64(), -2);
    EXPECT_EQ(message_variant_t(true).get_double(), 1.0);
    EXPECT_EQ(message_variant_t(true).get_uint64(), 1u);
    EXPECT_FALSE(message_variant_t(1LL).get_boolean());
    EXPECT_EQ(message_variant_t("7").get_double(), 0.0);
    EXPECT_EQ(message_variant_t("7").get_int64(), 0);
    EXPECT_EQ(message_variant_t(7LL).get_string(), "");
    variants_t untouched{message_variant_t(1LL)};
    EXPECT_EQ(message_variant_t(7LL).get_array(untouched), -1);
    EXPECT_EQ(untouched.size(), 1u);
}

TEST(variant, keeps_floats_beyond_the_integers_within_them) {
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

TEST(variant, keeps_equivalent_keys_in_the_order_they_came) {
    message_variant_t::map_t map;
    map.emplace(container(MSGPACK_OBJECT_ARRAY), "first");
    map.emplace("z", "text");
    map.emplace(container(MSGPACK_OBJECT_MAP), "second");
    map.emplace(container(MSGPACK_OBJECT_EXT), "third");
    map.emplace(1LL, "one");
    map.emplace(true, "true");
    map.emplace(message_variant_t(), "nil");
    std::string order;
    for (const auto& [key, value] : map) {
        order += value.get_string() + " ";
    }
    EXPECT_EQ(order, "nil one true text first second third ");
}

// A value as the order sees it, spelt out: the rank, then the number or the bytes. Numbers are counted in halves from
// 0, or in ones from 2^64: a long double does not tell all of them apart on every machine.
struct model_t {
    int rank;
    std::pair<bool, long long> number;  // from 2^64, how many
    std::string bytes;
    bool operator<(const model_t& o) const {
        return std::tie(rank, number, bytes) < std::tie(o.rank, o.number, o.bytes);
    }
};

std::pair<message_variant_t, model_t> random_value(std::mt19937_64& random) {
    const auto small = static_cast<long long>(random() % 9) - 4;
    std::string text;
    for (uint64_t i = random() % 4; i > 0; --i) {
        text += static_cast<char>("a\xFF\0"[random() % 3]);
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    switch (random() % 9) {
        case 0:
            return {message_variant_t(), {0, {}, ""}};
        case 1:
            return {message_variant_t(small > 0), {1, {false, small > 0 ? 2 : 0}, ""}};
        case 2:
            return {message_variant_t(small), {1, {false, small * 2}, ""}};
        case 3: {
            const auto below = static_cast<long long>(1 + random() % 3);
            return {message_variant_t(0ULL - static_cast<unsigned long long>(below)), {1, {true, -below}, ""}};
        }
        case 4:
            return {message_variant_t(static_cast<double>(small) / 2), {1, {false, small}, ""}};
        case 5:
            return {message_variant_t(static_cast<float>(small)), {1, {false, small * 2}, ""}};
        case 6:
            return {message_variant_t(text), {2, {}, text}};
        case 7:
            return {message_variant_t(bytes, static_cast<unsigned int>(text.size())), {2, {}, text}};
        default:
            return {container(MSGPACK_OBJECT_ARRAY), {3, {}, ""}};
    }
}

TEST(variant, orders_like_a_naive_model) {
    std::mt19937_64 random(42);
    for (int i = 0; i < 20000; ++i) {
        const auto [a, model_a] = random_value(random);
        const auto [b, model_b] = random_value(random);
        ASSERT_EQ(a < b, model_a < model_b) << i << ": types " << a.type() << " " << b.type();
    }
}

}  // namespace
