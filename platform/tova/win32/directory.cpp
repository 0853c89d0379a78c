#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "common.h"
#include "win32/Wide.h"

namespace {

struct Listing {
    std::vector<tova_dirent_t> entries;
    size_t next = 0;
};

// Times here are the file system's: units of 100 ns since 1601.
uint64_t Joined(DWORD high, DWORD low) {
    return uint64_t{high} << 32 | low;
}

uint64_t Now() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return Joined(now.dwHighDateTime, now.dwLowDateTime);
}

/*
 * The file system takes its times from a clock that stands still for some milliseconds. Once the
 * tick in which a file was last written is over, every later write gives it another change time.
 * So a listing that shows a file of the running tick is held back to the end of the tick: what is
 * written until then is read by whoever acts on the listing, what is written later shows in the
 * next one.
 */
class TickWatch {
  public:
    TickWatch() {
        DWORD adjustment = 0;
        DWORD increment = 0;
        BOOL disabled = FALSE;
        if (GetSystemTimeAdjustment(&adjustment, &increment, &disabled) && increment != 0)
            tick_ = increment;
    }

    void Note(uint64_t changed) {
        if (!IsOver(changed)) newest_ = std::max(newest_, changed);
    }

    void WaitOutTick() const {
        for (int i = 0; newest_ != 0 && i < kMaxSleeps && !IsOver(newest_); ++i) Sleep(1);
    }

  private:
    // The longest tick that the system uses.
    static constexpr uint64_t kDefaultTick = 156'250;
    // A bound for a clock that is set back meanwhile.
    static constexpr int kMaxSleeps = 64;

    // A time further ahead than a tick is not this clock's and counts as over.
    bool IsOver(uint64_t changed) const {
        const uint64_t now = Now();
        return changed < now ? now - changed > tick_ : changed - now > tick_;
    }

    uint64_t tick_ = kDefaultTick;
    uint64_t newest_ = 0;
};

// What the system tells of one object, wherever it tells it.
struct Facts {
    DWORD attributes = 0;
    uint64_t volume = 0;
    uint64_t file_id = 0;
    uint64_t size = 0;
    uint64_t written = 0;
    uint64_t changed = 0;
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

uint64_t Stamp(const Facts& facts) {
    uint64_t hash = 0;
    for (const uint64_t value :
         {facts.written, facts.changed, facts.size, facts.file_id, facts.volume}) {
        hash = Mix(hash + 1, value);
    }
    return hash;
}

uint32_t TypeOf(DWORD attributes) {
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return TOVA_DIRENT_FOLDER;
    return (attributes & FILE_ATTRIBUTE_DEVICE) != 0 ? 0 : TOVA_DIRENT_FILE;
}

DWORD FactsOf(HANDLE file, Facts& facts) {
    BY_HANDLE_FILE_INFORMATION about;
    FILE_BASIC_INFO times;
    if (!GetFileInformationByHandle(file, &about) ||
        !GetFileInformationByHandleEx(file, FileBasicInfo, &times, sizeof times))
        return GetLastError();
    facts.attributes = about.dwFileAttributes & ~DWORD{FILE_ATTRIBUTE_REPARSE_POINT};
    facts.volume = about.dwVolumeSerialNumber;
    facts.file_id = Joined(about.nFileIndexHigh, about.nFileIndexLow);
    facts.size = Joined(about.nFileSizeHigh, about.nFileSizeLow);
    facts.written = static_cast<uint64_t>(times.LastWriteTime.QuadPart);
    facts.changed = static_cast<uint64_t>(times.ChangeTime.QuadPart);
    return 0;
}

void Fill(tova_dirent_t& entry, const Facts& facts, bool is_link) {
    entry.type = is_link ? 0 : TypeOf(facts.attributes);
    entry.volume = facts.volume;
    entry.file_id = facts.file_id;
    entry.stamp = Stamp(facts);
}

// False: the text is too long for an entry.
bool Name(tova_dirent_t& entry, const wchar_t* name) {
    std::string text;
    if (!win32::Narrow(name, text) || text.size() >= sizeof entry.name) return false;
    std::memcpy(entry.name, text.data(), text.size());
    return true;
}

class Folder {
  public:
    explicit Folder(std::wstring path)
        : path_(std::move(path)),
          handle_(CreateFileW(path_.c_str(), FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES,
                              tova::kShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                              nullptr)) {}

    // 0 or the system's error.
    DWORD Read(std::vector<tova_dirent_t>& entries) {
        if (!handle_.IsValid()) return GetLastError();
        Facts own;
        if (const DWORD error = FactsOf(handle_.Get(), own)) return error;
        if (TypeOf(own.attributes) != TOVA_DIRENT_FOLDER) return ERROR_DIRECTORY;
        volume_ = own.volume;
        AddDots(own, entries);
        const DWORD error = ReadEntries(entries);
        watch_.WaitOutTick();
        return error;
    }

  private:
    using Record = FILE_ID_BOTH_DIR_INFO;

    // The two are not listed everywhere, so they are made here: first, as everywhere.
    void AddDots(const Facts& own, std::vector<tova_dirent_t>& entries) const {
        tova_dirent_t entry{};
        entry.name[0] = '.';
        Fill(entry, own, false);
        entries.push_back(entry);
        Facts above = own;
        const tova::Handle parent(CreateFileW(Parent().c_str(), FILE_READ_ATTRIBUTES,
                                              tova::kShareAll, nullptr, OPEN_EXISTING,
                                              FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        if (parent.IsValid()) FactsOf(parent.Get(), above);
        entry.name[1] = '.';
        Fill(entry, above, false);
        entries.push_back(entry);
    }

    // Of the folder itself, not of a link to it. A root is its own.
    std::wstring Parent() const {
        std::wstring path = path_;
        std::wstring real(path.size() + MAX_PATH, L'\0');
        const DWORD length = GetFinalPathNameByHandleW(
            handle_.Get(), real.data(), static_cast<DWORD>(real.size()), FILE_NAME_NORMALIZED);
        if (length > 0 && length < real.size()) path = real.substr(0, length);
        const size_t cut = path.find_last_of(L'\\');
        // "\\?\C:\x" goes up to "\\?\C:\".
        constexpr size_t kRootLength = 7;
        return path.substr(0, std::max(cut, std::min(kRootLength, path.size())));
    }

    DWORD ReadEntries(std::vector<tova_dirent_t>& entries) {
        constexpr DWORD kBufferBytes = 64 * 1024;
        const std::unique_ptr<std::byte[]> buffer(new std::byte[kBufferBytes]);
        for (;;) {
            if (!GetFileInformationByHandleEx(handle_.Get(), FileIdBothDirectoryInfo, buffer.get(),
                                              kBufferBytes)) {
                const DWORD error = GetLastError();
                return error == ERROR_NO_MORE_FILES ? 0 : error;
            }
            if (const DWORD error = AddAll(buffer.get(), entries)) return error;
        }
    }

    DWORD AddAll(const std::byte* position, std::vector<tova_dirent_t>& entries) {
        for (;;) {
            const Record& record = *reinterpret_cast<const Record*>(position);
            if (const DWORD error = Add(record, entries)) return error;
            if (record.NextEntryOffset == 0) return 0;
            position += record.NextEntryOffset;
        }
    }

    DWORD Add(const Record& record, std::vector<tova_dirent_t>& entries) {
        const std::wstring name(record.FileName, record.FileNameLength / sizeof(WCHAR));
        if (name == L"." || name == L"..") return 0;
        tova_dirent_t entry{};
        if (!Name(entry, name.c_str())) {
            // Most volumes keep a short one beside it.
            const std::wstring short_name(
                record.ShortName, static_cast<size_t>(record.ShortNameLength) / sizeof(WCHAR));
            if (short_name.empty() || !Name(entry, short_name.c_str()))
                return ERROR_FILENAME_EXCED_RANGE;
        }
        Facts facts;
        facts.attributes = record.FileAttributes;
        facts.volume = volume_;
        facts.file_id = static_cast<uint64_t>(record.FileId.QuadPart);
        facts.size = static_cast<uint64_t>(record.EndOfFile.QuadPart);
        facts.written = static_cast<uint64_t>(record.LastWriteTime.QuadPart);
        facts.changed = static_cast<uint64_t>(record.ChangeTime.QuadPart);
        if (!Examine(name, facts, entry)) return 0;
        // Some volumes keep no change time.
        if (entry.type == TOVA_DIRENT_FILE) watch_.Note(std::max(facts.changed, facts.written));
        entries.push_back(entry);
        return 0;
    }

    // What the folder keeps of a file may be older than the file, and of a link it is the link's
    // own. False: the entry has vanished.
    bool Examine(const std::wstring& name, Facts& facts, tova_dirent_t& entry) const {
        const bool is_link = (facts.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
        if (!is_link && TypeOf(facts.attributes) == TOVA_DIRENT_FOLDER) {
            Fill(entry, facts, false);
            return true;
        }
        const std::wstring path = path_ + (path_.back() == L'\\' ? L"" : L"\\") + name;
        const tova::Handle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, tova::kShareAll,
                                            nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                            nullptr));
        const DWORD error = file.IsValid() ? 0 : GetLastError();
        if (error == ERROR_FILE_NOT_FOUND && !is_link) return false;
        const bool followed = file.IsValid() && FactsOf(file.Get(), facts) == 0;
        // A link that leads nowhere is neither a folder nor a file; a file that is not shown to
        // this user is described by its folder.
        Fill(entry, facts, is_link && !followed);
        return true;
    }

    const std::wstring path_;
    uint64_t volume_ = 0;
    TickWatch watch_;
    // Opened last: the constructor leaves the opening's error behind.
    const tova::Handle handle_;
};

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

}  // namespace

void* TOVA_OpenDir(const char* path) {
    if (path == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    DWORD error = 0;
    try {
        std::wstring verbatim;
        auto listing = std::make_unique<Listing>();
        error = win32::VerbatimPath(path, verbatim) ? Folder(verbatim).Read(listing->entries)
                                                    : GetLastError();
        if (error == 0) {
            std::sort(listing->entries.begin(), listing->entries.end(), Before);
            return listing.release();
        }
    } catch (const std::bad_alloc&) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    SetLastError(error);
    return nullptr;
}

int TOVA_FindFileInDir(void* dir, tova_dirent_t* entry) {
    if (dir == nullptr || entry == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    Listing& listing = *static_cast<Listing*>(dir);
    if (listing.next == listing.entries.size()) return tova::Fail(ERROR_NO_MORE_FILES);
    *entry = listing.entries[listing.next++];
    return 0;
}

int TOVA_CloseDir(void* dir) {
    if (dir == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    delete static_cast<Listing*>(dir);
    return 0;
}
