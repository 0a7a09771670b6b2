#ifndef TANDEM_COMMON_PACKET_H
#define TANDEM_COMMON_PACKET_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/export.h"
#include "common/message_variant.h"

struct msgpack_packer;

namespace tandem {

// A sequence of MessagePack values in a growable buffer, and the frame that carries it on a stream: the body's length
// as a variable-length integer, then the body.
//
//   sending:   empty -> pack_* ... -> add_to_tndm (handed over: the buffer is the transport's, the packet has neither
//   bytes nor room left) receiving: empty -> check_and_push ... -> complete -> unpack_next ...
//
// One thread at a time. Nothing throws: without memory an operation fails.
class TANDEM_API packet_t {
  public:
    // A reading position within a packet; made by new_unpacker.
    class TANDEM_API base_unpacker {
      public:
        base_unpacker() = default;
        base_unpacker(const base_unpacker&) = delete;
        base_unpacker& operator=(const base_unpacker&) = delete;
        virtual ~base_unpacker();
    };

    explicit packet_t(uint32_t capacity);
    // Takes `data`, which must come from malloc, when `adopt` is set; else copies it (null: zeros). A `len` of 0 gives
    // an empty packet and leaves `data` the caller's.
    packet_t(void* data, uint32_t len, bool adopt);
    packet_t(const packet_t&) = delete;
    packet_t& operator=(const packet_t&) = delete;
    ~packet_t();

    // Nonzero: this packet is the last of its stream.
    uint32_t fin = 0;

    // The body; null when there is none, and once it is handed over.
    uint8_t* data() { return buffer_; }
    const uint8_t* data() const { return buffer_; }
    uint32_t size() const { return size_; }
    // The room of a packet that is written; the announced length of one that is received.
    uint32_t capacity() const { return capacity_; }
    bool handed_over() const { return handed_over_; }

    // After the buffer was filled from outside: the bytes that count, at most the capacity.
    void set_size(uint32_t size);
    // Gives back what the capacity exceeds the size, rounded up to a multiple of 8, by.
    void shrink_to_size();

    // Returns `n`, or -1 when there is no memory, or no room in a packet that is handed over.
    int append_buf(uint8_t* data, uint32_t n);
    // The packer's write callback; 0 on success, -1 on failure.
    static int msgpack_write(void* packet, const char* data, unsigned int n);

    // Each returns 0, or a negative value when the append failed. Integers take their shortest form.
    int pack_nil();
    int pack_bool(bool value);
    int pack_int8(int8_t value);
    int pack_int16(int16_t value);
    int pack_int32(int32_t value);
    int pack_int64(int64_t value);
    int pack_uint8(uint8_t value);
    int pack_uint16(uint16_t value);
    int pack_uint32(uint32_t value);
    int pack_uint64(uint64_t value);
    int pack_float(float value);
    int pack_double(double value);
    int pack_string(const std::string& text);
    // `len` < 0 stands for strlen; a null text fails.
    int pack_string(const char* text, int len = -1);
    int pack_bin(const uint8_t* data, uint32_t n);
    // Only the header: `n` values, or `n` pairs of values, are packed next.
    int pack_array_raw(int n);
    int pack_map_raw(int n);
    int pack_object(const msgpack_object& object);
    int pack_variant(const message_variant_t& value);
    int pack_array(const std::vector<message_variant_t>& values);
    int pack_map(const message_variant_t::map_t& map);

    // Takes bytes of one frame and never more: `consumed` tells how many. 1 when the packet is complete, else 0. A
    // frame of length 0, one longer than limit_frame allows and one that memory cannot hold never complete, and take no
    // byte of a body. Memory grows with what arrives, not with what is announced.
    uint32_t check_and_push(const uint8_t* data, uint32_t len, uint32_t& consumed);
    // Whether check_and_push has read a header that announces no body.
    bool is_empty_frame() const;
    // The longest body that check_and_push accepts, in bytes.
    void limit_frame(uint32_t longest) { frame_limit_ = longest; }

    // Queues the frame on a stream, with the stream's end behind it when `flags` or `fin` is nonzero. Returns the bytes
    // queued (header and body), 0 when there was nothing to send, -1 on failure. A body can be handed over once.
    int add_to_tndm(void* connection, uint64_t stream_id, int flags);

    std::shared_ptr<base_unpacker> new_unpacker();
    // Back to the first value; what was read becomes invalid.
    void reset_unpacker(std::shared_ptr<base_unpacker> unpacker);
    // Reads the next value as a view (see message_variant_t). Returns the position just behind it, or -1 (and leaves
    // `out` alone) at the end, for malformed bytes, and for an unpacker that is empty or strange.
    int unpack_next(std::shared_ptr<base_unpacker> unpacker, message_variant_t& out);
    // The same; nil on any failure.
    message_variant_t unpack_next(std::shared_ptr<base_unpacker> unpacker);

  private:
    bool resize_buffer(uint32_t bytes);
    bool ensure_packer();
    void start_body(uint64_t length);
    bool grow_body(uint32_t arriving);

    uint32_t capacity_ = 0;
    uint32_t size_ = 0;
    uint8_t header_[8] = {};
    uint32_t header_length_ = 0;
    uint32_t header_received_ = 0;
    uint8_t* buffer_ = nullptr;
    bool handed_over_ = false;
    msgpack_packer* packer_ = nullptr;
    // What the buffer really holds: less than the capacity only while a body arrives.
    uint32_t allocated_ = 0;
    uint32_t frame_limit_ = UINT32_MAX;
};

}  // namespace tandem

#endif  // TANDEM_COMMON_PACKET_H
