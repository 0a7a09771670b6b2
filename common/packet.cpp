#include "common/packet.h"

#include <msgpack/pack.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "common/varint.h"
#include "link/tndm.h"

namespace tandem {

namespace {

// Room beyond each request, so that small messages are packed with few reallocations.
constexpr uint32_t growth_step = 512;
// What a frame is given before its body arrives; a header alone must not cost the receiver more.
constexpr uint32_t first_body_room = 16 * 1024;

uint64_t round_up_8(uint32_t n) {
    return (uint64_t{n} + 7) & ~uint64_t{7};
}

// msgpack-c counts in size_t.
int write_to_packet(void* packet, const char* data, size_t n) {
    if (uint64_t{n} > UINT_MAX) return -1;
    return packet_t::msgpack_write(packet, data, static_cast<unsigned int>(n));
}

}  // namespace

packet_t::packet_t(uint32_t capacity) {
    if (capacity > 0 && resize_buffer(capacity)) capacity_ = capacity;
}

packet_t::packet_t(void* data, uint32_t len, bool adopt) {
    if (len == 0) return;
    if (adopt && data != nullptr) {
        buffer_ = static_cast<uint8_t*>(data);
        allocated_ = len;
    } else if (!resize_buffer(len)) {
        return;
    } else if (data != nullptr) {
        std::memcpy(buffer_, data, len);
    } else {
        std::memset(buffer_, 0, len);
    }
    capacity_ = len;
    size_ = len;
}

packet_t::~packet_t() {
    std::free(packer_);
    std::free(buffer_);
}

void packet_t::set_size(uint32_t size) {
    size_ = std::min(size, capacity_);
}

void packet_t::shrink_to_size() {
    const uint64_t wanted = round_up_8(size_);
    if (handed_over_ || wanted >= capacity_) return;
    if (wanted == 0) {
        std::free(buffer_);
        buffer_ = nullptr;
        allocated_ = capacity_ = 0;
    } else if (resize_buffer(static_cast<uint32_t>(wanted))) {
        capacity_ = static_cast<uint32_t>(wanted);
    }
}

bool packet_t::resize_buffer(uint32_t bytes) {
    void* resized = std::realloc(buffer_, bytes);
    if (resized == nullptr) return false;
    buffer_ = static_cast<uint8_t*>(resized);
    allocated_ = bytes;
    return true;
}

int packet_t::append_buf(uint8_t* data, uint32_t n) {
    // The result counts the bytes, so more than an int holds cannot be told from a failure.
    if (handed_over_ || n > INT_MAX || (data == nullptr && n > 0)) return -1;
    if (buffer_ == nullptr || capacity_ - size_ < n) {
        const uint64_t wanted = uint64_t{capacity_} + growth_step + round_up_8(n);
        if (wanted > UINT32_MAX || !resize_buffer(static_cast<uint32_t>(wanted))) return -1;
        capacity_ = allocated_;
    } else if (allocated_ - size_ < n && !resize_buffer(capacity_)) {
        return -1;
    }
    if (n > 0) std::memcpy(buffer_ + size_, data, n);
    size_ += n;
    return static_cast<int>(n);
}

int packet_t::msgpack_write(void* packet, const char* data, unsigned int n) {
    auto* bytes = reinterpret_cast<uint8_t*>(const_cast<char*>(data));
    return static_cast<packet_t*>(packet)->append_buf(bytes, n) < 0 ? -1 : 0;
}

bool packet_t::ensure_packer() {
    if (packer_ != nullptr) return true;
    packer_ = static_cast<msgpack_packer*>(std::calloc(1, sizeof(msgpack_packer)));
    if (packer_ == nullptr) return false;
    msgpack_packer_init(packer_, this, write_to_packet);
    return true;
}

int packet_t::pack_nil() {
    return ensure_packer() ? msgpack_pack_nil(packer_) : -1;
}

int packet_t::pack_bool(bool value) {
    if (!ensure_packer()) return -1;
    return value ? msgpack_pack_true(packer_) : msgpack_pack_false(packer_);
}

int packet_t::pack_int8(int8_t value) {
    return ensure_packer() ? msgpack_pack_int8(packer_, value) : -1;
}
int packet_t::pack_int16(int16_t value) {
    return ensure_packer() ? msgpack_pack_int16(packer_, value) : -1;
}
int packet_t::pack_int32(int32_t value) {
    return ensure_packer() ? msgpack_pack_int32(packer_, value) : -1;
}
int packet_t::pack_int64(int64_t value) {
    return ensure_packer() ? msgpack_pack_int64(packer_, value) : -1;
}
int packet_t::pack_uint8(uint8_t value) {
    return ensure_packer() ? msgpack_pack_uint8(packer_, value) : -1;
}
int packet_t::pack_uint16(uint16_t value) {
    return ensure_packer() ? msgpack_pack_uint16(packer_, value) : -1;
}
int packet_t::pack_uint32(uint32_t value) {
    return ensure_packer() ? msgpack_pack_uint32(packer_, value) : -1;
}
int packet_t::pack_uint64(uint64_t value) {
    return ensure_packer() ? msgpack_pack_uint64(packer_, value) : -1;
}
int packet_t::pack_float(float value) {
    return ensure_packer() ? msgpack_pack_float(packer_, value) : -1;
}
int packet_t::pack_double(double value) {
    return ensure_packer() ? msgpack_pack_double(packer_, value) : -1;
}

int packet_t::pack_string(const std::string& text) {
    return text.size() > INT_MAX ? -1 : pack_string(text.data(), static_cast<int>(text.size()));
}

int packet_t::pack_string(const char* text, int len) {
    if (text == nullptr || !ensure_packer()) return -1;
    const size_t length = len < 0 ? std::strlen(text) : static_cast<size_t>(len);
    const int result = msgpack_pack_str(packer_, length);
    return result < 0 ? result : msgpack_pack_str_body(packer_, text, length);
}

int packet_t::pack_bin(const uint8_t* data, uint32_t n) {
    if (!ensure_packer()) return -1;
    const int result = msgpack_pack_bin(packer_, n);
    return result < 0 ? result : msgpack_pack_bin_body(packer_, data, n);
}

int packet_t::pack_array_raw(int n) {
    return n >= 0 && ensure_packer() ? msgpack_pack_array(packer_, static_cast<size_t>(n)) : -1;
}

int packet_t::pack_map_raw(int n) {
    return n >= 0 && ensure_packer() ? msgpack_pack_map(packer_, static_cast<size_t>(n)) : -1;
}

int packet_t::pack_object(const msgpack_object& object) {
    return ensure_packer() ? msgpack_pack_object(packer_, object) : -1;
}

int packet_t::pack_variant(const message_variant_t& value) {
    return pack_object(value.object());
}

int packet_t::pack_array(const std::vector<message_variant_t>& values) {
    if (values.size() > INT_MAX || pack_array_raw(static_cast<int>(values.size())) < 0) return -1;
    for (const message_variant_t& value : values) {
        pack_variant(value);
    }
    return 0;
}

int packet_t::pack_map(const message_variant_t::map_t& map) {
    if (map.size() > INT_MAX || pack_map_raw(static_cast<int>(map.size())) < 0) return -1;
    for (const auto& [key, value] : map) {
        pack_variant(key);
        pack_variant(value);
    }
    return 0;
}

uint32_t packet_t::check_and_push(const uint8_t* data, uint32_t len, uint32_t& consumed) {
    consumed = 0;
    const auto complete = [this] { return capacity_ != 0 && size_ >= capacity_ ? 1u : 0u; };
    if (data == nullptr || len == 0) return complete();
    if (header_length_ == 0) header_length_ = static_cast<uint32_t>(t_decode_varint_length(data[0]));
    const uint32_t taken = std::min(header_length_ - header_received_, len);
    if (taken > 0) {
        std::memcpy(header_ + header_received_, data, taken);
        header_received_ += taken;
        if (header_received_ == header_length_) {
            uint64_t length = 0;
            t_varint_decode(header_, sizeof(header_), &length);
            start_body(length);
        }
    }
    consumed = taken;
    if (buffer_ != nullptr && size_ < capacity_ && taken < len) {
        const uint32_t body = std::min(len - taken, capacity_ - size_);
        if (!grow_body(body)) return 0;
        std::memcpy(buffer_ + size_, data + taken, body);
        size_ += body;
        consumed += body;
    }
    return complete();
}

bool packet_t::is_empty_frame() const {
    if (header_length_ == 0 || header_received_ < header_length_) return false;
    uint64_t length = 0;
    t_varint_decode(header_, sizeof(header_), &length);
    return length == 0;
}

// The capacity is the announced length from here on; the memory behind it follows the bytes.
void packet_t::start_body(uint64_t length) {
    if (length == 0 || length > frame_limit_ || length < size_ || handed_over_) return;
    const auto body = static_cast<uint32_t>(length);
    if (resize_buffer(std::max(size_, std::min(body, first_body_room)))) capacity_ = body;
}

// Without memory the packet is emptied and, with capacity 0, never completes.
bool packet_t::grow_body(uint32_t arriving) {
    const uint32_t needed = size_ + arriving;
    if (needed <= allocated_) return true;
    const uint64_t doubled = std::min(uint64_t{capacity_}, uint64_t{allocated_} * 2);
    if (resize_buffer(std::max(needed, static_cast<uint32_t>(doubled)))) return true;
    std::free(buffer_);
    buffer_ = nullptr;
    allocated_ = capacity_ = size_ = 0;
    return false;
}

int packet_t::add_to_tndm(void* connection, uint64_t stream_id, int flags) {
    if (handed_over_) {
        log_place("add_to_tndm", 651);
        std::printf("Packet - ERROR! Duplicate adding to link stream of [%p]\n", static_cast<void*>(this));
        return -1;
    }
    const bool ends = flags != 0 || fin != 0;
    const auto header = static_cast<uint32_t>(t_varint_encode(header_, sizeof(header_), size_));
    if (size_ == 0) {
        if (!ends) return 0;
        return tndm_add_to_stream(connection, stream_id, header_, header, 1) < 0 ? -1 : static_cast<int>(header);
    }
    if (tndm_add_to_stream(connection, stream_id, header_, header, 0) < 0) return -1;
    if (tndm_add_to_stream_ext(connection, stream_id, buffer_, size_, ends ? 1 : 0) < 0) return -1;
    handed_over_ = true;
    buffer_ = nullptr;
    allocated_ = 0;
    capacity_ = size_;
    return static_cast<int>(std::min<uint64_t>(uint64_t{header} + size_, INT_MAX));
}

}  // namespace tandem
