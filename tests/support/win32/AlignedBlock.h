// AlignedBlock.h: blocks with an alignment, from beneath the operators new.
#ifndef VESSA_TESTS_SUPPORT_ALIGNEDBLOCK_H
#define VESSA_TESTS_SUPPORT_ALIGNEDBLOCK_H

#include <malloc.h>

#include <cstddef>

// Null for want of memory. A block goes back through FreeAlignedBlock only.
inline void* AllocateAlignedBlock(std::size_t size, std::size_t alignment) noexcept {
    return _aligned_malloc(size == 0 ? 1 : size, alignment);
}

inline void FreeAlignedBlock(void* block) noexcept {
    _aligned_free(block);
}

#endif
