// MemoryBlocks.h: the blocks that the C library gives out.
#ifndef VESSA_TESTS_UNIT_POSIX_MEMORYBLOCKS_H
#define VESSA_TESTS_UNIT_POSIX_MEMORYBLOCKS_H

#include <malloc.h>

#include <cstddef>

namespace vessa_test {

// At least what was asked for.
inline std::size_t UsableBytes(void* block) {
    return malloc_usable_size(block);
}

}  // namespace vessa_test

#endif
