#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "common.h"

namespace {

/*
 * A listing as the system wrote it, with what was found out about each entry beside it: a scan
 * of many folders spends its time on the way there, not on copies of names.
 */
struct Entry {
    size_t name_at;  // in the records
    uint64_t volume;
    uint64_t file_id;
    uint64_t stamp;
    uint32_t type;
};

struct Listing {
    std::vector<char> records;
    size_t used = 0;  // of the records
    std::vector<Entry> entries;
    size_t next = 0;

    const char* NameOf(const Entry& entry) const { return &records[entry.name_at]; }
};

/*
 * One closed listing is kept for its memory, so that a scan does not allocate for every folder,
 * unless it was of a folder far beyond the usual.
 */
class Spare {
  public:
    // A thread that still lists while the process ends finds none.
    ~Spare() { delete listing_.exchange(nullptr); }

    std::unique_ptr<Listing> Take() {
        std::unique_ptr<Listing> listing(listing_.exchange(nullptr));
        return listing != nullptr ? std::move(listing) : std::make_unique<Listing>();
    }
    void Keep(std::unique_ptr<Listing> listing) {
        if (listing->records.size() > kLargest) return;
        listing->used = 0;
        listing->entries.clear();
        listing->next = 0;
        Listing* none = nullptr;
        if (listing_.compare_exchange_strong(none, listing.get())) listing.release();
    }

  private:
    static constexpr size_t kLargest = size_t{1} << 18;

    std::atomic<Listing*> listing_{nullptr};
};

Spare g_spare;

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
int Examine(int folder, const char* name, Entry& entry, TickWatch& watch) {
    struct stat status {};
    if (std::strcmp(name, ".") == 0) {
        if (fstat(folder, &status) != 0) return errno;
    } else if (fstatat(folder, name, &status, 0) != 0) {
        if (!MayBeDangling(errno)) return errno;
        // Either a dangling link, which is listed with its own data, or gone, or back again.
        if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    }
    entry.type = TypeOf(status.st_mode);
    entry.volume = status.st_dev;
    entry.file_id = status.st_ino;
    entry.stamp = Stamp(status);
    if (entry.type == TOVA_DIRENT_FILE) watch.Note(status.st_ctim);
    return 0;
}

int ReadRecords(int folder, Listing& listing) {
    // As much as the C library reads at once.
    constexpr size_t kStep = 32768;
    for (;;) {
        const size_t room = listing.records.size() - listing.used;
        if (room < kStep) listing.records.resize(listing.records.size() + kStep - room);
        const ssize_t read = getdents64(folder, &listing.records[listing.used],
                                        listing.records.size() - listing.used);
        // A folder that was removed meanwhile has come to its end.
        if (read < 0) return errno == ENOENT ? 0 : errno;
        if (read == 0) return 0;
        listing.used += static_cast<size_t>(read);
    }
}

int ExamineAll(int folder, Listing& listing) {
    TickWatch watch;
    for (size_t at = 0; at < listing.used;) {
        const auto* const record = reinterpret_cast<const dirent64*>(&listing.records[at]);
        Entry entry{};
        entry.name_at = at + offsetof(dirent64, d_name);
        at += record->d_reclen;
        // As the C library: an entry without a number is a deleted one.
        if (record->d_ino == 0) continue;
        const char* const name = listing.NameOf(entry);
        if (std::strlen(name) >= sizeof tova_dirent_t::name) return ENAMETOOLONG;
        const int error = Examine(folder, name, entry, watch);
        if (error == ENOENT) continue;
        if (error != 0) return error;
        listing.entries.push_back(entry);
    }
    watch.WaitOutTick();
    return 0;
}

// "." and ".." before everything, also before names that begin with a lower byte.
int Rank(const char* name) {
    if (name[0] != '.') return 2;
    if (name[1] == '\0') return 0;
    return std::strcmp(name, "..") == 0 ? 1 : 2;
}

bool Before(const char* left, const char* right) {
    const int left_rank = Rank(left);
    const int right_rank = Rank(right);
    if (left_rank != right_rank) return left_rank < right_rank;
    return std::strcmp(left, right) < 0;
}

int ReadListing(const char* path, Listing& listing) {
    const tova::Descriptor folder(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.value() < 0) return errno;
    int error = ReadRecords(folder.value(), listing);
    if (error != 0) return error;
    error = ExamineAll(folder.value(), listing);
    if (error != 0) return error;
    std::sort(listing.entries.begin(), listing.entries.end(),
              [&listing](const Entry& left, const Entry& right) {
                  return Before(listing.NameOf(left), listing.NameOf(right));
              });
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
        auto listing = g_spare.Take();
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
    const Entry& found = listing.entries[listing.next++];
    std::memset(entry, 0, sizeof *entry);
    std::strcpy(entry->name, listing.NameOf(found));
    entry->type = found.type;
    entry->volume = found.volume;
    entry->file_id = found.file_id;
    entry->stamp = found.stamp;
    return 0;
}

int TOVA_CloseDir(void* dir) {
    if (dir == nullptr) return tova::Fail(EINVAL);
    g_spare.Keep(std::unique_ptr<Listing>(static_cast<Listing*>(dir)));
    return 0;
}
