// The replaced global operators. They stand on malloc alone, so that the address sanitizer
// still sees every block.
#include <cstdlib>
#include <new>

#include "AlignedBlock.h"
#include "support/Allocation.h"

namespace {

const bool linked = (vessa_test::detail::SetOperatorsLinked(), true);

void* Allocate(std::size_t size) noexcept {
    if (vessa_test::detail::AllocationMustFail()) return nullptr;
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr) vessa_test::detail::CountBlock(1);
    return block;
}

void* AllocateAligned(std::size_t size, std::align_val_t alignment) noexcept {
    if (vessa_test::detail::AllocationMustFail()) return nullptr;
    void* block = AllocateAlignedBlock(size, static_cast<std::size_t>(alignment));
    if (block != nullptr) vessa_test::detail::CountBlock(1);
    return block;
}

void* OrThrow(void* block) {
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void Free(void* block) noexcept {
    if (block == nullptr) return;
    vessa_test::detail::CountBlock(-1);
    std::free(block);
}

void FreeAligned(void* block) noexcept {
    if (block == nullptr) return;
    vessa_test::detail::CountBlock(-1);
    FreeAlignedBlock(block);
}

}  // namespace

void* operator new(std::size_t size) {
    return OrThrow(Allocate(size));
}
void* operator new[](std::size_t size) {
    return OrThrow(Allocate(size));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return OrThrow(AllocateAligned(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return OrThrow(AllocateAligned(size, alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return AllocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return AllocateAligned(size, alignment);
}

void operator delete(void* block) noexcept {
    Free(block);
}
void operator delete[](void* block) noexcept {
    Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    FreeAligned(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    FreeAligned(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    FreeAligned(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
    FreeAligned(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    FreeAligned(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    FreeAligned(block);
}
