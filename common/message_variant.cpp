#include "common/message_variant.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

namespace tandem {

namespace {

enum class rank_t { nil, number, bytes, container, unknown };

rank_t rank_of(const msgpack_object& object) {
    switch (object.type) {
        case MSGPACK_OBJECT_NIL:
            return rank_t::nil;
        case MSGPACK_OBJECT_BOOLEAN:
        case MSGPACK_OBJECT_POSITIVE_INTEGER:
        case MSGPACK_OBJECT_NEGATIVE_INTEGER:
        case MSGPACK_OBJECT_FLOAT32:
        case MSGPACK_OBJECT_FLOAT64:
            return rank_t::number;
        case MSGPACK_OBJECT_STR:
        case MSGPACK_OBJECT_BIN:
            return rank_t::bytes;
        case MSGPACK_OBJECT_ARRAY:
        case MSGPACK_OBJECT_MAP:
        case MSGPACK_OBJECT_EXT:
            return rank_t::container;
    }
    return rank_t::unknown;
}

bool is_float(const msgpack_object& object) {
    return object.type == MSGPACK_OBJECT_FLOAT32 || object.type == MSGPACK_OBJECT_FLOAT64;
}

bool is_integer(const msgpack_object& object) {
    return object.type == MSGPACK_OBJECT_POSITIVE_INTEGER || object.type == MSGPACK_OBJECT_NEGATIVE_INTEGER;
}

bool is_bytes(const msgpack_object& object) {
    return rank_of(object) == rank_t::bytes;
}

// Texts and binaries have their size and pointer in the same places, but only the member that was written may be read.
std::string_view bytes_of(const msgpack_object& object) {
    if (object.type == MSGPACK_OBJECT_STR) return {object.via.str.ptr, object.via.str.size};
    return {object.via.bin.ptr, object.via.bin.size};
}

uint64_t as_unsigned(const msgpack_object& object) {
    return object.type == MSGPACK_OBJECT_BOOLEAN ? object.via.boolean : object.via.u64;
}

double as_double(const msgpack_object& object) {
    switch (object.type) {
        case MSGPACK_OBJECT_FLOAT32:
        case MSGPACK_OBJECT_FLOAT64:
            return object.via.f64;
        case MSGPACK_OBJECT_POSITIVE_INTEGER:
            return static_cast<double>(object.via.u64);
        case MSGPACK_OBJECT_NEGATIVE_INTEGER:
            return static_cast<double>(object.via.i64);
        case MSGPACK_OBJECT_BOOLEAN:
            return object.via.boolean ? 1.0 : 0.0;
        default:
            return 0.0;
    }
}

template <typename integer>
integer saturate(double value) {
    using limits = std::numeric_limits<integer>;
    if (std::isnan(value)) return 0;
    if (value <= static_cast<double>(limits::min())) return limits::min();
    // The largest value itself has no exact double: the bound is the power of two above it.
    if (value >= std::ldexp(1.0, limits::digits)) return limits::max();
    return static_cast<integer>(value);
}

bool number_less(const msgpack_object& a, const msgpack_object& b) {
    if (is_float(a)) return a.via.f64 < as_double(b);
    const bool a_negative = a.type == MSGPACK_OBJECT_NEGATIVE_INTEGER;
    if (is_float(b)) {
        if (!a_negative && b.via.f64 < 0) return false;
        if (a_negative && b.via.f64 >= 0) return true;
        return as_double(a) < b.via.f64;
    }
    const bool b_negative = b.type == MSGPACK_OBJECT_NEGATIVE_INTEGER;
    if (a_negative != b_negative) return a_negative;
    return a_negative ? a.via.i64 < b.via.i64 : as_unsigned(a) < as_unsigned(b);
}

bool bytes_less(const msgpack_object& a, const msgpack_object& b) {
    const std::string_view left = bytes_of(a);
    const std::string_view right = bytes_of(b);
    if (left.data() != nullptr && right.data() != nullptr) return left < right;
    if (left.data() == nullptr && right.data() == nullptr) return left.size() < right.size();
    return left.data() == nullptr;
}

// A text or binary that had no memory for its bytes.
bool lacks_bytes(const msgpack_object& object) {
    return is_bytes(object) && bytes_of(object).data() == nullptr && !bytes_of(object).empty();
}

}  // namespace

message_variant_t::message_variant_t() {
    assign_nil();
}
message_variant_t::message_variant_t(bool value) {
    assign(value);
}
message_variant_t::message_variant_t(unsigned long long value) {
    assign(value);
}
message_variant_t::message_variant_t(long long value) {
    assign(value);
}
message_variant_t::message_variant_t(float value) {
    assign(value);
}
message_variant_t::message_variant_t(double value) {
    assign(value);
}
message_variant_t::message_variant_t(const char* text, int len) {
    assign(text, len);
}
message_variant_t::message_variant_t(const std::string& text) {
    assign(text);
}
message_variant_t::message_variant_t(const unsigned char* data, unsigned int len) {
    assign_nil();
    assign(data, len);
}
message_variant_t::message_variant_t(const msgpack_object& object) {
    assign(object);
}
message_variant_t::message_variant_t(const message_variant_t& src) {
    assign(src);
}

message_variant_t::message_variant_t(message_variant_t&& src) noexcept
    : buffer_(std::exchange(src.buffer_, nullptr)), capacity_(std::exchange(src.capacity_, 0)), object_(src.object_) {
    src.assign_nil();
}

message_variant_t& message_variant_t::operator=(const message_variant_t& src) {
    assign(src);
    return *this;
}

message_variant_t& message_variant_t::operator=(message_variant_t&& src) noexcept {
    if (this == &src) return *this;
    release();
    buffer_ = std::exchange(src.buffer_, nullptr);
    capacity_ = std::exchange(src.capacity_, 0);
    object_ = src.object_;
    src.assign_nil();
    return *this;
}

message_variant_t::~message_variant_t() {
    std::free(buffer_);
}

void message_variant_t::release() {
    std::free(buffer_);
    buffer_ = nullptr;
    capacity_ = 0;
}

bool message_variant_t::owns(const void* data) const {
    const auto address = reinterpret_cast<uintptr_t>(data);
    const auto start = reinterpret_cast<uintptr_t>(buffer_);
    return buffer_ != nullptr && address >= start && address - start < capacity_;
}

// Copies `len` bytes into an own buffer of at least `capacity`; they may lie in the present one. Null without memory.
void* message_variant_t::replace_buffer(uint32_t capacity, const void* data, uint32_t len) {
    if (buffer_ != nullptr && capacity_ >= capacity) {
        if (len > 0) std::memmove(buffer_, data, len);
        return buffer_;
    }
    void* fresh = capacity > 0 ? std::malloc(capacity) : nullptr;
    if (fresh != nullptr && len > 0) std::memcpy(fresh, data, len);
    release();
    buffer_ = fresh;
    capacity_ = fresh != nullptr ? capacity : 0;
    return fresh;
}

void message_variant_t::assign_nil() {
    release();
    object_ = {};
    object_.type = MSGPACK_OBJECT_NIL;
}

void message_variant_t::assign(bool value) {
    assign_nil();
    object_.type = MSGPACK_OBJECT_BOOLEAN;
    object_.via.boolean = value;
}

void message_variant_t::assign(unsigned long long value) {
    assign_nil();
    object_.type = MSGPACK_OBJECT_POSITIVE_INTEGER;
    object_.via.u64 = value;
}

void message_variant_t::assign(long long value) {
    assign_nil();
    object_.type = value < 0 ? MSGPACK_OBJECT_NEGATIVE_INTEGER : MSGPACK_OBJECT_POSITIVE_INTEGER;
    object_.via.i64 = value;
}

void message_variant_t::assign(float value) {
    assign_nil();
    object_.type = MSGPACK_OBJECT_FLOAT32;
    object_.via.f64 = value;
}

void message_variant_t::assign(double value) {
    assign_nil();
    object_.type = MSGPACK_OBJECT_FLOAT64;
    object_.via.f64 = value;
}

void message_variant_t::assign(const char* text, int len) {
    if (text == nullptr) {
        text = "";
        len = 0;
    }
    const auto size = len < 0 ? static_cast<uint32_t>(std::strlen(text)) : static_cast<uint32_t>(len);
    auto* copy = static_cast<char*>(replace_buffer(size + 1, text, size));
    if (copy != nullptr) copy[size] = '\0';
    object_.type = MSGPACK_OBJECT_STR;
    object_.via.str = {size, copy};
}

void message_variant_t::assign(const std::string& text) {
    assign(text.data(), static_cast<int>(text.size()));
}

void message_variant_t::assign(const unsigned char* data, unsigned int len) {
    if (data == nullptr && len != 0) return;
    const auto* copy = static_cast<const char*>(replace_buffer(len, data, len));
    // Null stands for bytes that there was no memory for.
    if (len == 0) copy = "";
    object_.type = MSGPACK_OBJECT_BIN;
    object_.via.bin = {len, copy};
}

void message_variant_t::assign(const message_variant_t& src) {
    if (this == &src) return;
    const msgpack_object copied = src.object_;
    if (!is_bytes(copied) || !src.owns(bytes_of(copied).data())) {
        release();
        object_ = copied;
        return;
    }
    const auto offset = bytes_of(copied).data() - static_cast<const char*>(src.buffer_);
    const auto* copy = static_cast<const char*>(replace_buffer(src.capacity_, src.buffer_, src.capacity_));
    object_ = copied;
    const char* data = copy != nullptr ? copy + offset : nullptr;
    if (copied.type == MSGPACK_OBJECT_STR) {
        object_.via.str.ptr = data;
    } else {
        object_.via.bin.ptr = data;
    }
}

void message_variant_t::assign(const msgpack_object& object) {
    const msgpack_object view = object;
    release();
    object_ = view;
}

bool message_variant_t::get_boolean() const {
    return type() == MSGPACK_OBJECT_BOOLEAN && object_.via.boolean;
}

int64_t message_variant_t::get_int64() const {
    if (is_integer(object_)) return object_.via.i64;
    return saturate<int64_t>(as_double(object_));
}

uint64_t message_variant_t::get_uint64() const {
    if (is_integer(object_)) return object_.via.u64;
    return saturate<uint64_t>(as_double(object_));
}

float message_variant_t::get_float() const {
    // Integers are rounded once, not first to a double.
    if (type() == MSGPACK_OBJECT_POSITIVE_INTEGER) return static_cast<float>(object_.via.u64);
    if (type() == MSGPACK_OBJECT_NEGATIVE_INTEGER) return static_cast<float>(object_.via.i64);
    return static_cast<float>(as_double(object_));
}

double message_variant_t::get_double() const {
    return as_double(object_);
}

const char* message_variant_t::get_cstr(unsigned int& len) const {
    len = type() == MSGPACK_OBJECT_STR ? object_.via.str.size : 0;
    return type() == MSGPACK_OBJECT_STR ? object_.via.str.ptr : nullptr;
}

std::string message_variant_t::get_string() const {
    if (type() != MSGPACK_OBJECT_STR || object_.via.str.ptr == nullptr) return {};
    return std::string(object_.via.str.ptr, object_.via.str.size);
}

const uint8_t* message_variant_t::get_binary(unsigned int& len) const {
    const char* data = nullptr;
    len = 0;
    if (is_bytes(object_)) {
        data = bytes_of(object_).data();
        len = static_cast<unsigned int>(bytes_of(object_).size());
    } else if (type() == MSGPACK_OBJECT_EXT) {
        data = object_.via.ext.ptr;
        len = object_.via.ext.size;
    }
    return reinterpret_cast<const uint8_t*>(data);
}

int message_variant_t::get_array(std::vector<message_variant_t>& out) const {
    if (type() != MSGPACK_OBJECT_ARRAY) return -1;
    const msgpack_object_array array = object_.via.array;
    out.clear();
    out.reserve(array.size);
    for (uint32_t i = 0; i < array.size; ++i) {
        out.emplace_back(array.ptr[i]);
    }
    return static_cast<int>(array.size);
}

int message_variant_t::get_map(map_t& out) const {
    if (type() != MSGPACK_OBJECT_MAP) return -1;
    const msgpack_object_map map = object_.via.map;
    out.clear();
    for (uint32_t i = 0; i < map.size; ++i) {
        out.emplace(map.ptr[i].key, map.ptr[i].val);
    }
    return static_cast<int>(map.size);
}

bool message_variant_t::operator<(const message_variant_t& other) const {
    const rank_t rank = rank_of(object_);
    const rank_t other_rank = rank_of(other.object_);
    if (rank != other_rank) return rank < other_rank;
    if (rank == rank_t::number) return number_less(object_, other.object_);
    return rank == rank_t::bytes && bytes_less(object_, other.object_);
}

bool message_variant_t::operator==(const message_variant_t& other) const {
    return *this == other.object_;
}

bool message_variant_t::operator==(const msgpack_object& other) const {
    if (lacks_bytes(object_) || lacks_bytes(other)) return false;
    return msgpack_object_equal(object_, other);
}

bool message_variant_t::operator==(bool value) const {
    return type() == MSGPACK_OBJECT_BOOLEAN && object_.via.boolean == value;
}

bool message_variant_t::operator==(long long value) const {
    if (is_integer(object_)) return object_.via.i64 == value;
    return is_float(object_) && object_.via.f64 == static_cast<double>(value);
}

bool message_variant_t::operator==(unsigned long long value) const {
    if (is_integer(object_)) return object_.via.u64 == value;
    return is_float(object_) && object_.via.f64 == static_cast<double>(value);
}

bool message_variant_t::operator==(float value) const {
    if (is_float(object_)) return object_.via.f64 == static_cast<double>(value);
    return is_integer(object_) && value == static_cast<float>(object_.via.i64);
}

bool message_variant_t::operator==(double value) const {
    if (is_float(object_)) return object_.via.f64 == value;
    return is_integer(object_) && static_cast<double>(object_.via.i64) == value;
}

bool message_variant_t::operator==(const char* text) const {
    if (type() != MSGPACK_OBJECT_STR || object_.via.str.ptr == nullptr || text == nullptr) return false;
    return std::strncmp(text, object_.via.str.ptr, object_.via.str.size) == 0;
}

bool message_variant_t::operator==(const std::string& text) const {
    return *this == text.c_str();
}

bool message_variant_t::is_text(std::string_view text) const {
    return type() == MSGPACK_OBJECT_STR && object_.via.str.ptr != nullptr && bytes_of(object_) == text;
}

}  // namespace tandem
