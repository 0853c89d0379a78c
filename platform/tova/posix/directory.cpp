#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <vector>

#include "common.h"

namespace {

struct Listing {
    std::vector<tova_dirent_t> entries;
    size_t next = 0;
};

struct CloseStream {
    void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, CloseStream>;

/*
 * The file system takes its times from a clock that stands still for some milliseconds. Once the
 * tick in which a file was last written is over, every later write gives it another change time,
 * which no program can restore. So a listing that shows a file of the running tick is held back
 * to the end of the tick: what is written until then is read by whoever acts on the listing, what
 * is written later shows in the next one.
 */
class TickWatch {
  public:
    TickWatch() {
        timespec tick{};
        clock_getres(CLOCK_REALTIME_COARSE, &tick);
        tick_ns_ = tick.tv_nsec;
    }

    void Note(const timespec& changed) {
        if (IsOver(changed)) return;
        if (!noted_ || changed.tv_sec > newest_.tv_sec ||
            (changed.tv_sec == newest_.tv_sec && changed.tv_nsec > newest_.tv_nsec)) {
            newest_ = changed;
        }
        noted_ = true;
    }

    void WaitOutTick() const {
        for (int i = 0; noted_ && i < kMaxTicks && !IsOver(newest_); ++i) {
            tova::SleepUntil(tova::MonotonicAfter(0, tick_ns_));
        }
    }

  private:
    // A bound for a clock that is set back meanwhile.
    static constexpr int kMaxTicks = 4;

    // Half a tick leaves room for file systems that cut the time off and for a clock that is
    // being slewed. A time further ahead than a tick is not this clock's and counts as over.
    bool IsOver(const timespec& changed) const {
        timespec now{};
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        if (changed.tv_sec < now.tv_sec - 1 || changed.tv_sec > now.tv_sec + 1) return true;
        const long age_ns =
            (now.tv_sec - changed.tv_sec) * tova::kNsPerSecond + now.tv_nsec - changed.tv_nsec;
        return age_ns > tick_ns_ / 2 || age_ns < -tick_ns_;
    }

    long tick_ns_ = 0;
    bool noted_ = false;
    timespec newest_{};
};

// One to one in either argument: two files that differ in one value alone never share a stamp.
uint64_t Mix(uint64_t hash, uint64_t value) {
    hash ^= value;
    hash ^= hash >> 32;
    hash *= 0x9E3779B97F4A7C15u;
    hash ^= hash >> 29;
    hash *= 0xD6E8FEB86659FD93u;
    hash ^= hash >> 32;
    return hash;
}

uint64_t Stamp(const struct stat& status) {
    uint64_t hash = 0;
    for (const uint64_t value :
         {static_cast<uint64_t>(status.st_mtim.tv_sec),
          static_cast<uint64_t>(status.st_mtim.tv_nsec),
          static_cast<uint64_t>(status.st_ctim.tv_sec),
          static_cast<uint64_t>(status.st_ctim.tv_nsec), static_cast<uint64_t>(status.st_size),
          static_cast<uint64_t>(status.st_ino), static_cast<uint64_t>(status.st_dev)}) {
        hash = Mix(hash + 1, value);
    }
    return hash;
}

uint32_t TypeOf(mode_t mode) {
    if (S_ISDIR(mode)) return TOVA_DIRENT_FOLDER;
    if (S_ISREG(mode)) return TOVA_DIRENT_FILE;
    return 0;
}

// An error that a link of its own can cause by leading nowhere.
bool MayBeDangling(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

// 0, ENOENT for an entry that vanished, or another error.
int Examine(int folder, tova_dirent_t& entry, TickWatch& watch) {
    struct stat status {};
    if (fstatat(folder, entry.name, &status, 0) != 0) {
        if (!MayBeDangling(errno)) return errno;
        // Either a dangling link, which is listed with its own data, or gone, or back again.
        if (fstatat(folder, entry.name, &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    }
    entry.type = TypeOf(status.st_mode);
    entry.volume = status.st_dev;
    entry.file_id = status.st_ino;
    entry.stamp = Stamp(status);
    if (entry.type == TOVA_DIRENT_FILE) watch.Note(status.st_ctim);
    return 0;
}

int ReadNames(DIR* stream, std::vector<tova_dirent_t>& entries) {
    for (;;) {
        errno = 0;
        const dirent* const found = readdir(stream);
        if (found == nullptr) return errno;
        tova_dirent_t entry{};
        const size_t length = std::strlen(found->d_name);
        if (length >= sizeof entry.name) return ENAMETOOLONG;
        std::memcpy(entry.name, found->d_name, length);
        entries.push_back(entry);
    }
}

int ExamineAll(int folder, std::vector<tova_dirent_t>& entries) {
    TickWatch watch;
    size_t kept = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        const int error = Examine(folder, entries[i], watch);
        if (error == ENOENT) continue;
        if (error != 0) return error;
        if (kept != i) entries[kept] = entries[i];
        ++kept;
    }
    entries.resize(kept);
    watch.WaitOutTick();
    return 0;
}

// "." and ".." before everything, also before names that begin with a lower byte.
int Rank(const char* name) {
    if (std::strcmp(name, ".") == 0) return 0;
    return std::strcmp(name, "..") == 0 ? 1 : 2;
}

bool Before(const tova_dirent_t& left, const tova_dirent_t& right) {
    const int left_rank = Rank(left.name);
    const int right_rank = Rank(right.name);
    if (left_rank != right_rank) return left_rank < right_rank;
    return std::strcmp(left.name, right.name) < 0;
}

int ReadListing(const char* path, Listing& listing) {
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return errno;
    const Stream stream(fdopendir(folder));
    if (stream == nullptr) {
        const int error = errno;
        close(folder);
        return error;
    }
    int error = ReadNames(stream.get(), listing.entries);
    if (error != 0) return error;
    error = ExamineAll(folder, listing.entries);
    if (error != 0) return error;
    std::sort(listing.entries.begin(), listing.entries.end(), Before);
    return 0;
}

}  // namespace

void* TOVA_OpenDir(const char* path) {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const tova::CancelGuard guard;
    int error = 0;
    try {
        auto listing = std::make_unique<Listing>();
        error = ReadListing(path, *listing);
        if (error == 0) return listing.release();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    }
    errno = error;
    return nullptr;
}

int TOVA_FindFileInDir(void* dir, tova_dirent_t* entry) {
    if (dir == nullptr || entry == nullptr) return tova::Fail(EINVAL);
    Listing& listing = *static_cast<Listing*>(dir);
    if (listing.next == listing.entries.size()) return tova::Fail(ENOENT);
    *entry = listing.entries[listing.next++];
    return 0;
}

int TOVA_CloseDir(void* dir) {
    if (dir == nullptr) return tova::Fail(EINVAL);
    delete static_cast<Listing*>(dir);
    return 0;
}
