// A block of bytes from malloc, as the applications hand them over.
#ifndef TANDEM_PLATFORM_TNDM_CORE_BUFFER_H
#define TANDEM_PLATFORM_TNDM_CORE_BUFFER_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <utility>

namespace tndm::core {

class buffer {
  public:
    buffer() = default;
    // Takes `data` over; it must come from malloc.
    buffer(uint8_t* data, uint32_t size) : data_(data), size_(size), capacity_(size) {}
    // An empty block with room for `capacity` bytes. Throws std::bad_alloc.
    static buffer with_capacity(uint32_t capacity) {
        buffer made;
        made.data_ = static_cast<uint8_t*>(std::malloc(capacity == 0 ? 1 : capacity));
        if (made.data_ == nullptr) {
            throw std::bad_alloc();
        }
        made.capacity_ = capacity;
        return made;
    }
    static buffer copy_of(std::span<const uint8_t> bytes) {
        buffer made = with_capacity(static_cast<uint32_t>(bytes.size()));
        made.append(bytes);
        return made;
    }
    buffer(buffer&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0)) {}
    buffer& operator=(buffer&& other) noexcept {
        if (this != &other) {
            std::free(data_);
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
            capacity_ = std::exchange(other.capacity_, 0);
        }
        return *this;
    }
    buffer(const buffer&) = delete;
    buffer& operator=(const buffer&) = delete;
    ~buffer() { std::free(data_); }

    const uint8_t* data() const { return data_; }
    uint32_t size() const { return size_; }
    uint32_t room() const { return capacity_ - size_; }
    std::span<const uint8_t> bytes() const { return {data_, size_}; }
    // `bytes` must fit into room().
    void append(std::span<const uint8_t> bytes) {
        if (!bytes.empty()) {
            std::memcpy(data_ + size_, bytes.data(), bytes.size());
            size_ += static_cast<uint32_t>(bytes.size());
        }
    }

  private:
    uint8_t* data_ = nullptr;
    uint32_t size_ = 0;
    uint32_t capacity_ = 0;
};

}  // namespace tndm::core

#endif
