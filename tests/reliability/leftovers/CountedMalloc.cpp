// The C library's allocation functions with a count of what was asked for and not given back. The
// allocator's own figures are not exact: it keeps freed blocks for each thread, and a block may be
// given a few bytes more than it needs. In front of each block stand its size and where it began.
#include "CountedMalloc.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" {
void* __libc_malloc(std::size_t size);
void __libc_free(void* block);
}

namespace {

struct Header {
    std::size_t size;
    void* begin;
};
static_assert(sizeof(Header) == alignof(std::max_align_t), "blocks stay aligned");

std::atomic<long> bytes_in_use{0};

Header* HeaderOf(void* block) {
    return static_cast<Header*>(block) - 1;
}

void* Allocate(std::size_t size, std::size_t alignment) {
    const std::size_t room = size + alignment + sizeof(Header);
    void* const begin = room > size ? __libc_malloc(room) : nullptr;
    if (begin == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(begin) + sizeof(Header);
    const std::uintptr_t aligned = (first + alignment - 1) & ~(std::uintptr_t{alignment} - 1);
    void* const block = reinterpret_cast<void*>(aligned);
    *HeaderOf(block) = Header{size, begin};
    bytes_in_use.fetch_add(static_cast<long>(size), std::memory_order_relaxed);
    return block;
}

constexpr std::size_t kAlignment = alignof(std::max_align_t);

}  // namespace

namespace vessa_test {

long BytesInUse() {
    return bytes_in_use.load(std::memory_order_relaxed);
}

}  // namespace vessa_test

#define REPLACES __attribute__((visibility("default"), used))

extern "C" {

REPLACES void* malloc(std::size_t size) {
    return Allocate(size, kAlignment);
}

REPLACES void free(void* block) {
    if (block == nullptr) return;
    const Header header = *HeaderOf(block);
    bytes_in_use.fetch_sub(static_cast<long>(header.size), std::memory_order_relaxed);
    __libc_free(header.begin);
}

REPLACES void* calloc(std::size_t count, std::size_t size) {
    std::size_t whole = 0;
    if (__builtin_mul_overflow(count, size, &whole)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* const block = Allocate(whole, kAlignment);
    return block != nullptr ? std::memset(block, 0, whole) : nullptr;
}

REPLACES void* realloc(void* block, std::size_t size) {
    if (block == nullptr) return Allocate(size, kAlignment);
    void* const moved = Allocate(size, kAlignment);
    if (moved == nullptr) return nullptr;
    const std::size_t before = HeaderOf(block)->size;
    std::memcpy(moved, block, before < size ? before : size);
    free(block);
    return moved;
}

REPLACES void* memalign(std::size_t alignment, std::size_t size) {
    return Allocate(size, alignment < kAlignment ? kAlignment : alignment);
}

REPLACES void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}

REPLACES int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}

REPLACES void* valloc(std::size_t size) {
    return memalign(static_cast<std::size_t>(getpagesize()), size);
}

REPLACES std::size_t malloc_usable_size(void* block) {
    return block != nullptr ? HeaderOf(block)->size : 0;
}
}
