// AlignedBlock.h: blocks with an alignment, from beneath the operators new.
#ifndef VESSA_TESTS_SUPPORT_ALIGNEDBLOCK_H
#define VESSA_TESTS_SUPPORT_ALIGNEDBLOCK_H

#include <cstdlib>

// Null for want of memory. A block goes back through FreeAlignedBlock only.
inline void* AllocateAlignedBlock(std::size_t size, std::size_t alignment) noexcept {
    if (size > static_cast<std::size_t>(-1) - alignment) return nullptr;
    return std::aligned_alloc(alignment, (size + alignment) / alignment * alignment);
}

inline void FreeAlignedBlock(void* block) noexcept {
    std::free(block);
}

#endif
