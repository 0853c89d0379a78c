#include "Ledger.h"

#include <execinfo.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "support/Allocation.h"

// The allocator below this one: the C library's, or that of the address sanitizer, which has the
// same functions under names of its own.
#define JOIN_(prefix, name) prefix##name
#define JOIN(prefix, name) JOIN_(prefix, name)
#define REAL(name) JOIN(FAULTS_BELOW, name)

extern "C" {
void* REAL(malloc)(size_t);
void* REAL(calloc)(size_t, size_t);
void* REAL(realloc)(void*, size_t);
void* REAL(memalign)(size_t, size_t);
void REAL(free)(void*);
// The sanitizer asks for a new thread's stack; without memory for that it ends the program.
int RealAttributes(pthread_t thread,
                   pthread_attr_t* attributes) __asm__("__real_pthread_getattr_np");
int SparedAttributes(pthread_t thread,
                     pthread_attr_t* attributes) __asm__("__wrap_pthread_getattr_np");
}

namespace faults {
namespace {

constexpr int kCallers = 24;

struct Block {
    void* address;
    size_t size;
    long number;
    bool is_parsers;
};

// Open addressing; a hole ends a search, so a removal moves what stands behind it up.
constexpr size_t kSlots = size_t{1} << 17;
Block slots[kSlots];
// The callers of what stands in the slot, while somebody wants them.
struct Callers {
    void* address;
    void* frames[kCallers];
    int count;
};
Callers* callers = nullptr;

std::atomic_flag table_lock = ATOMIC_FLAG_INIT;
Census census;
Census largest;

std::atomic<int> watches{0};
std::atomic<int> counting_watches{0};
std::atomic<long> counted{0};
std::atomic<long> failed{0};
std::atomic<long> failed_documents{0};
std::atomic<long> fail_at{0};
std::atomic<bool> fail_later{false};

thread_local int parser_depth = 0;
thread_local bool document_failed = false;
thread_local bool inside = false;

class TableLock {
  public:
    TableLock() {
        while (table_lock.test_and_set(std::memory_order_acquire)) sched_yield();
    }
    ~TableLock() { table_lock.clear(std::memory_order_release); }
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;
};

size_t SlotOf(const void* address) {
    return (reinterpret_cast<uintptr_t>(address) >> 4) * 0x9E3779B97F4A7C15u >> 47;
}
static_assert(kSlots == size_t{1} << (64 - 47), "a slot is the upper bits of the product");

void Count(const Block& block, long sign) {
    const long size = sign * static_cast<long>(block.size);
    census.blocks += block.is_parsers ? 0 : sign;
    census.bytes += block.is_parsers ? 0 : size;
    census.parser_blocks += block.is_parsers ? sign : 0;
    census.parser_bytes += block.is_parsers ? size : 0;
}

void Enter(void* address, size_t size, long number) {
    void* frames[kCallers];
    int frame_count = 0;
    if (callers != nullptr && !inside) {
        inside = true;
        frame_count = backtrace(frames, kCallers);
        inside = false;
    }
    const TableLock lock;
    if (census.blocks + census.parser_blocks >= static_cast<long>(kSlots / 2)) std::abort();
    size_t at = SlotOf(address);
    while (slots[at].address != nullptr) at = (at + 1) % kSlots;
    slots[at] = {address, size, number, parser_depth > 0};
    Count(slots[at], 1);
    if (callers != nullptr) {
        Callers& kept = callers[static_cast<size_t>(number) % kSlots];
        kept.address = address;
        kept.count = frame_count;
        std::memcpy(kept.frames, frames, sizeof frames);
    }
}

// Whether the block was entered.
bool Remove(const void* address, Block& removed) {
    const TableLock lock;
    size_t at = SlotOf(address);
    while (slots[at].address != address) {
        if (slots[at].address == nullptr) return false;
        at = (at + 1) % kSlots;
    }
    removed = slots[at];
    Count(removed, -1);
    for (size_t next = (at + 1) % kSlots; slots[next].address != nullptr;
         next = (next + 1) % kSlots) {
        const size_t home = SlotOf(slots[next].address);
        if ((next - home) % kSlots < (next - at) % kSlots) continue;
        slots[at] = slots[next];
        at = next;
    }
    slots[at].address = nullptr;
    return true;
}

bool IsWatched() {
    return watches.load(std::memory_order_relaxed) > 0 && !inside &&
           !vessa_test::detail::AllocationsArePaused();
}

bool MustFail() {
    if (counting_watches.load(std::memory_order_relaxed) == 0) return false;
    const long number = counted.fetch_add(1) + 1;
    const long at = fail_at.load();
    if (at == 0 || number < at || (number > at && !fail_later.load())) return false;
    failed.fetch_add(1);
    if (parser_depth > 0) document_failed = true;
    return true;
}

template <class Make>
void* Allocate(size_t size, Make make) {
    if (!IsWatched()) return make();
    if (MustFail()) {
        errno = ENOMEM;
        return nullptr;
    }
    void* const address = make();
    static std::atomic<long> last_number{0};
    if (address != nullptr) Enter(address, size, last_number.fetch_add(1) + 1);
    return address;
}

void Free(void* address) {
    if (address == nullptr) return;
    Block removed{};
    Remove(address, removed);
    REAL(free)(address);
}

}  // namespace

Watch::Watch(bool counting) : counting_(counting) {
    watches.fetch_add(1);
    if (counting_) counting_watches.fetch_add(1);
}

Watch::~Watch() {
    if (counting_) counting_watches.fetch_sub(1);
    watches.fetch_sub(1);
}

void FailAllocation(long nth, bool and_later) {
    fail_later.store(and_later);
    fail_at.store(nth);
}

void FailNoAllocation() {
    fail_at.store(0);
}

Numbers AllocationNumbers() {
    return {counted.load(), failed.load(), failed_documents.load()};
}

Census TakeCensus() {
    const TableLock lock;
    return census;
}

Census LargestDocument() {
    const TableLock lock;
    return largest;
}

void KeepCallers() {
    void* frames[kCallers];
    backtrace(frames, kCallers);  // loads what it needs
    callers = static_cast<Callers*>(REAL(calloc)(kSlots, sizeof(Callers)));
}

void PrintBlocks() {
    for (const Block& block : slots) {
        if (block.address == nullptr) continue;
        std::fprintf(stderr, "%zu bytes%s, allocation %ld\n", block.size,
                     block.is_parsers ? " of the parser" : "", block.number);
        if (callers == nullptr) continue;
        const Callers& kept = callers[static_cast<size_t>(block.number) % kSlots];
        if (kept.address == block.address) backtrace_symbols_fd(kept.frames, kept.count, 2);
    }
}

}  // namespace faults

#if defined(FAULTS_SPARES_SANITIZER)
int SparedAttributes(pthread_t thread, pthread_attr_t* attributes) {
    faults::inside = true;
    const int result = RealAttributes(thread, attributes);
    faults::inside = false;
    return result;
}
#endif

using faults::Allocate;
using faults::Free;

void Faults_Parser(int enters) {
    static thread_local faults::Census before;
    if (enters != 0) {
        if (faults::parser_depth++ == 0) before = faults::TakeCensus();
        return;
    }
    if (--faults::parser_depth > 0) return;
    if (faults::document_failed) faults::failed_documents.fetch_add(1);
    faults::document_failed = false;
    const faults::TableLock lock;
    const long blocks = faults::census.parser_blocks - before.parser_blocks;
    const long bytes = faults::census.parser_bytes - before.parser_bytes;
    if (blocks > faults::largest.parser_blocks) faults::largest.parser_blocks = blocks;
    if (bytes > faults::largest.parser_bytes) faults::largest.parser_bytes = bytes;
}

extern "C" {

#define EXPORTED __attribute__((visibility("default")))

EXPORTED void* malloc(size_t size) {
    return Allocate(size, [&] { return REAL(malloc)(size); });
}

EXPORTED void* calloc(size_t count, size_t size) {
    return Allocate(count * size, [&] { return REAL(calloc)(count, size); });
}

EXPORTED void* realloc(void* old, size_t size) {
    if (old == nullptr) return malloc(size);
    if (size == 0) {
        Free(old);
        return nullptr;
    }
    // The old block stays where it is, and entered, if this fails.
    faults::Block removed{};
    const bool was_entered = faults::Remove(old, removed);
    void* const made = Allocate(size, [&] { return REAL(realloc)(old, size); });
    if (made == nullptr && was_entered) faults::Enter(old, removed.size, removed.number);
    return made;
}

EXPORTED void* memalign(size_t alignment, size_t size) {
    return Allocate(size, [&] { return REAL(memalign)(alignment, size); });
}

EXPORTED void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}

EXPORTED int posix_memalign(void** out, size_t alignment, size_t size) {
    void* const made = memalign(alignment, size);
    if (made == nullptr) return ENOMEM;
    *out = made;
    return 0;
}

EXPORTED void free(void* address) {
    Free(address);
}

}  // extern "C"

namespace {

void* New(std::size_t size) {
    void* const made = malloc(size == 0 ? 1 : size);
    if (made == nullptr) throw std::bad_alloc();
    return made;
}

void* NewAligned(std::size_t size, std::align_val_t alignment) {
    void* const made = memalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size);
    if (made == nullptr) throw std::bad_alloc();
    return made;
}

}  // namespace

void* operator new(std::size_t size) {
    return New(size);
}
void* operator new[](std::size_t size) {
    return New(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return NewAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return NewAligned(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return memalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return memalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size);
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
    Free(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    Free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
    Free(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(block);
}
