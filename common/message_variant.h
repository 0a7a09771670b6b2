#ifndef TANDEM_COMMON_MESSAGE_VARIANT_H
#define TANDEM_COMMON_MESSAGE_VARIANT_H

#include <msgpack/object.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/export.h"

namespace tandem {

// One MessagePack value with a total order, so that it can be the key of a multimap.
//
// Texts and binaries assigned from the caller's data are owned copies. A value that comes from an unpacker
// (packet_t::unpack_next), or an element of such a value, is a view: valid while its unpacker and its packet live, and
// until the next read with that unpacker. Copies of a view are views. A variant belongs to one thread at a time.
// Nothing throws but containers without memory.
class TANDEM_API message_variant_t {
  public:
    using map_t = std::multimap<message_variant_t, message_variant_t>;

    message_variant_t();
    message_variant_t(bool value);
    message_variant_t(unsigned long long value);
    message_variant_t(long long value);
    message_variant_t(float value);
    message_variant_t(double value);
    message_variant_t(const char* text, int len = -1);
    message_variant_t(const std::string& text);
    message_variant_t(const unsigned char* data, unsigned int len);
    message_variant_t(const msgpack_object& object);
    message_variant_t(const message_variant_t& src);
    message_variant_t(message_variant_t&& src) noexcept;
    message_variant_t& operator=(const message_variant_t& src);
    message_variant_t& operator=(message_variant_t&& src) noexcept;
    ~message_variant_t();

    void assign_nil();
    void assign(bool value);
    void assign(unsigned long long value);
    // A positive value (0 too) has the positive integer's type.
    void assign(long long value);
    void assign(float value);
    void assign(double value);
    // A copy with a terminating zero behind it. `len` < 0 stands for strlen; a null text is the empty one. Without
    // memory the text is null.
    void assign(const char* text, int len = -1);
    void assign(const std::string& text);
    // A null `data` with a `len` other than 0 leaves the variant as it is.
    void assign(const unsigned char* data, unsigned int len);
    void assign(const message_variant_t& src);
    // A view of what `object` points at, which must not be this variant's own copy.
    void assign(const msgpack_object& object);

    msgpack_object_type type() const { return object_.type; }
    // The value as msgpack-c sees it; its pointers live as long as this variant's value.
    const msgpack_object& object() const { return object_; }

    // A getter that does not fit the type gives false, 0, null or an empty text. Numbers convert among each other, a
    // boolean counts as 0 or 1; a float beyond the integer's range gives the nearest end of that range, and
    // not-a-number gives 0.
    bool get_boolean() const;
    int64_t get_int64() const;
    uint64_t get_uint64() const;
    float get_float() const;
    double get_double() const;
    // A text's characters; terminated only when the variant owns them.
    const char* get_cstr(unsigned int& len) const;
    std::string get_string() const;
    // The bytes of a binary, a text or an extension.
    const uint8_t* get_binary(unsigned int& len) const;
    // The elements, or the pairs in the map's order with equal keys as they came, as views; the number of them, or -1
    // (and `out` untouched) for another type.
    int get_array(std::vector<message_variant_t>& out) const;
    int get_map(map_t& out) const;

    // nil < numbers and booleans, by value < texts and binaries, by bytes < arrays, maps and extensions, which are all
    // equivalent.
    bool operator<(const message_variant_t& other) const;

    // Deep, and exact in the type.
    bool operator==(const message_variant_t& other) const;
    bool operator==(const msgpack_object& other) const;
    bool operator==(bool value) const;
    // Integers compare as 64 bits, whatever their sign.
    bool operator==(long long value) const;
    bool operator==(unsigned long long value) const;
    bool operator==(float value) const;
    bool operator==(double value) const;
    // Only the variant's own characters count: "HS" equals "HSRQ". To match a key or a tag use is_text.
    bool operator==(const char* text) const;
    bool operator==(const std::string& text) const;

    // Whether this is a text of exactly these characters.
    bool is_text(std::string_view text) const;

  private:
    bool owns(const void* data) const;
    void release();
    void* replace_buffer(uint32_t capacity, const void* data, uint32_t len);

    void* buffer_ = nullptr;
    uint32_t capacity_ = 0;
    msgpack_object object_;
};

}  // namespace tandem

#endif  // TANDEM_COMMON_MESSAGE_VARIANT_H
