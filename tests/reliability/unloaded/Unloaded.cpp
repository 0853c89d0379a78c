// A library for LD_PRELOAD: whatever was unloaded is never anybody's again.
//
// It stands in for dlclose. After the real one it looks which files are mapped no more, and maps
// their whole address ranges so that nothing can be read, written or run there, for the rest of the
// process. A stale pointer then faults at its first use, instead of reaching the next module that
// happens to be mapped in the same place. A fault in such a range is said on standard error
// ("unloaded: ...") before the process ends by it, as it would without.
//
// VESSA_UNLOADED_COUNTS names a file of Counts (Counts.h) to which every process adds.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "reliability/unloaded/Counts.h"

namespace {

constexpr uintptr_t kPage = 4096;
constexpr int kMostRanges = 1 << 16;
constexpr size_t kNameSize = 64;

struct Range {
    uintptr_t begin;
    uintptr_t end;
    char name[kNameSize];
};

// Read by the handler of the fault. A range that is being filled in holds nothing yet.
Range* blocked = nullptr;
std::atomic<int> next_range{0};

Counts own_counts;
Counts* counts = &own_counts;

struct Mapped {
    uintptr_t begin;
    uintptr_t end;
    char name[kNameSize];
};

// On the stack: the program's own operators new may count, or fail on request.
struct MappedList {
    static constexpr int kMost = 256;
    int count = 0;
    Mapped items[kMost];
};

int AddMapped(dl_phdr_info* info, size_t, void* list) {
    uintptr_t begin = UINTPTR_MAX;
    uintptr_t end = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD) continue;
        const uintptr_t first = info->dlpi_addr + header.p_vaddr;
        if (first < begin) begin = first;
        if (first + header.p_memsz > end) end = first + header.p_memsz;
    }
    if (begin >= end) return 0;
    Mapped mapped{begin / kPage * kPage, (end + kPage - 1) / kPage * kPage, {}};
    const char* const slash = std::strrchr(info->dlpi_name, '/');
    std::snprintf(mapped.name, sizeof mapped.name, "%s",
                  slash != nullptr ? slash + 1 : info->dlpi_name);
    auto& all = *static_cast<MappedList*>(list);
    if (all.count == MappedList::kMost) std::abort();
    all.items[all.count++] = mapped;
    return 0;
}

bool IsAmong(const Mapped& one, const MappedList& all) {
    for (int i = 0; i < all.count; ++i) {
        if (all.items[i].begin == one.begin && all.items[i].end == one.end) return true;
    }
    return false;
}

void Block(const Mapped& gone) {
    void* const begin = reinterpret_cast<void*>(gone.begin);
    void* const there =
        mmap(begin, gone.end - gone.begin, PROT_NONE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (there != begin) {
        // Another thread's memory, which nobody may touch.
        if (there != MAP_FAILED) munmap(there, gone.end - gone.begin);
        counts->missed.fetch_add(1);
        return;
    }
    counts->blocked.fetch_add(1);
    const int at = next_range.fetch_add(1);
    if (at >= kMostRanges) return;
    Range& range = blocked[at];
    std::memcpy(range.name, gone.name, sizeof range.name);
    range.begin = gone.begin;
    range.end = gone.end;
}

const Range* FindBlocked(uintptr_t address) {
    for (int i = 0; i < kMostRanges && i < next_range.load(); ++i) {
        if (address >= blocked[i].begin && address < blocked[i].end) return &blocked[i];
    }
    return nullptr;
}

// Says what happened; the instruction is run again and ends the process by the same signal.
void Faulted(int signal_number, siginfo_t* info, void*) {
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    if (const Range* const range = FindBlocked(address)) {
        counts->faults.fetch_add(1);
        char text[160];
        const int length = std::snprintf(
            text, sizeof text, "unloaded: %s is used after its unload, at offset %lx\n",
            range->name, static_cast<unsigned long>(address - range->begin));
        const ssize_t written = write(STDERR_FILENO, text, static_cast<size_t>(length));
        static_cast<void>(written);
    }
    std::signal(signal_number, SIG_DFL);
}

void OpenCounts() {
    const char* const path = std::getenv("VESSA_UNLOADED_COUNTS");
    if (path == nullptr) return;
    const int file = open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) return;
    void* const page = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (page != MAP_FAILED) counts = static_cast<Counts*>(page);
}

__attribute__((constructor)) void Prepare() {
    void* const ranges = mmap(nullptr, sizeof(Range) * kMostRanges, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (ranges == MAP_FAILED) std::abort();
    blocked = static_cast<Range*>(ranges);
    OpenCounts();
    struct sigaction action {};
    action.sa_sigaction = &Faulted;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int dlclose(void* handle) noexcept {
    using Close = int (*)(void*);
    static const auto real = reinterpret_cast<Close>(dlsym(RTLD_NEXT, "dlclose"));
    MappedList before;
    dl_iterate_phdr(&AddMapped, &before);
    const int result = real(handle);
    if (result != 0) return result;
    MappedList after;
    dl_iterate_phdr(&AddMapped, &after);
    bool is_gone = false;
    for (int i = 0; i < before.count; ++i) {
        if (IsAmong(before.items[i], after)) continue;
        is_gone = true;
        Block(before.items[i]);
    }
    if (is_gone) counts->unloads.fetch_add(1);
    return 0;
}
