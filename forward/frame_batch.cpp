#include "forward/frame_batch.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/varint.h"
#include "link/tndm.h"

namespace tandem {

void frame_batch_t::put(size_t size) {
    uint8_t* const at = frames_.data() + size_;
    const auto header = static_cast<size_t>(t_encode_varint_length(size));
    if (header != usual_header_) std::memmove(at + header, at + usual_header_, size);
    t_varint_encode(at, header_room_, size);
    size_ += header + size;
}

void frame_batch_t::add(const uint8_t* body, size_t size) {
    uint8_t* const at = frames_.data() + size_;
    const auto header = static_cast<size_t>(t_varint_encode(at, header_room_, size));
    if (size > 0) std::memcpy(at + header, body, size);
    size_ += header + size;
}

bool frame_batch_t::send(void* connection, uint64_t stream_id) {
    const size_t size = std::exchange(size_, 0);
    if (size == 0) return true;
    auto* const bytes = static_cast<uint8_t*>(std::malloc(size));
    if (!bytes) return false;
    std::memcpy(bytes, frames_.data(), size);
    if (tndm_add_to_stream_ext(connection, stream_id, bytes, static_cast<uint32_t>(size), 0) >= 0) return true;
    std::free(bytes);
    return false;
}

}  // namespace tandem
