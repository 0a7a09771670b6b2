#include "tests/core/heap_meter.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> in_use{0};

void release(void* block) noexcept {
    in_use.fetch_sub(malloc_usable_size(block), std::memory_order_relaxed);
    std::free(block);
}

}  // namespace

namespace tndm::sim {

size_t heap_in_use() {
    return in_use.load(std::memory_order_relaxed);
}

}  // namespace tndm::sim

// The array forms and the sized forms of the library come down to these.
void* operator new(size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    in_use.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
    return block;
}

void operator delete(void* block) noexcept {
    release(block);
}

void operator delete(void* block, size_t) noexcept {
    release(block);
}
