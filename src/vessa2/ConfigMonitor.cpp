#include "vessa2/ConfigMonitor.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "common/RunSort.h"
#include "common/SyncPoint.h"
#include "process/Process.h"
#include "tova.h"

namespace {

struct DirectoryCloser {
    void* directory;
    ~DirectoryCloser() { TOVA_CloseDir(directory); }
};

// A folder name with a backslash cannot be written in the library's path form.
bool CanBeExpressed(const char* name) {
    return std::strchr(name, '\\') == nullptr;
}

bool IsOwnName(const char* name) {
    return std::strcmp(name, ".") == 0;
}
bool IsParentName(const char* name) {
    return std::strcmp(name, "..") == 0;
}

// The files of a scan by their paths. Of two entries with one path the later one counts. What is
// looked for in the order of the paths is found without a search.
class FileIndex {
  public:
    struct Known {
        const ConfigMonitor::FileInfo* file = nullptr;
        bool seen = false;
    };

    explicit FileIndex(const std::list<ConfigMonitor::FileInfo>& files) {
        known_.reserve(files.size());
        for (const ConfigMonitor::FileInfo& file : files) known_.push_back({&file, false});
        SortByRuns(known_, [](const Known& left, const Known& right) {
            return left.file->path < right.file->path;
        });
        const auto last = std::unique(known_.rbegin(), known_.rend(),
                                      [](const Known& later, const Known& earlier) {
                                          return later.file->path == earlier.file->path;
                                      });
        known_.erase(known_.begin(), last.base());
    }

    // Null: there is none.
    Known* Find(const std::string& path) {
        const auto is_below = [](const Known& known, const std::string& text) {
            return known.file->path < text;
        };
        if (next_ == known_.size() || known_[next_].file->path != path) {
            const auto found = std::lower_bound(known_.begin(), known_.end(), path, is_below);
            if (found == known_.end() || found->file->path != path) return nullptr;
            next_ = static_cast<size_t>(found - known_.begin());
        }
        return &known_[next_++];
    }

    const std::vector<Known>& known() const { return known_; }

  private:
    std::vector<Known> known_;
    size_t next_ = 0;
};

}  // namespace

bool ConfigMonitor::Start(const std::string& plugin_root, const std::string& config_filename,
                          Receiver receiver) {
    LOG_FORMAT_OF(this, kInformation, "param plugin_root = {0}, config_filename = {1}", plugin_root,
                  config_filename);
    if (plugin_root.empty()) {
        LOG_PLAIN(kError, "param plugin_root should not be empty");
        return false;
    }
    if (config_filename.empty()) {
        LOG_PLAIN(kError, "param config_filename should not be empty");
        return false;
    }
    if (started_.load()) {
        LOG_PLAIN(kWarning, "already started");
        return true;
    }
    plugin_root_ = plugin_root;
    config_filename_ = config_filename;
    receiver_.Set(receiver.Get());
    stopping_.store(false);
    // Taken back also when the thread is cancelled in a module that the first scan loads.
    struct Undo {
        std::atomic<bool>* started;
        ~Undo() {
            if (started != nullptr) started->store(false);
        }
    } undo{&started_};
    started_.store(true);
    MonitorTimerProc();
    const ObjectPtrT<Closure> scan = NewClosure(this, &ConfigMonitor::MonitorTimerProc);
    if (scan.IsNull()) {
        LOG_PLAIN(kError, "Create ClosurePtr failed, out of memory");
        return false;
    }
    if (!timer_.SetTimer(kScanPeriodMs, scan)) {
        const int error = TOVA_GetSystemLastError();
        LOG_FORMAT_OF(this, kError, "SetTimer failed, system error {0}/{0:X}", error);
        return false;
    }
    undo.started = nullptr;
    LOG_PLAIN(kInformation, "start config monitor succeeded");
    return true;
}

bool ConfigMonitor::Stop() {
    if (!started_.load()) {
        LOG_PLAIN(kWarning, "already stopped");
        return true;
    }
    started_.store(false);
    stopping_.store(true);
    VESSA_SYNC_POINT("monitor.stop.asks", this);
    timer_.StopTimer();
    plugin_root_.clear();
    config_filename_.clear();
    receiver_.Set(Receiver::Target());
    previous_files_.clear();
    queue_.Free();
    stopping_.store(false);
    LOG_PLAIN(kInformation, "stop config monitor succeeded");
    return true;
}

void ConfigMonitor::MonitorTimerProc() {
    if (!started_.load()) {
        LOG_PLAIN(kInformation, "config monitor stopped, check loop exit");
        return;
    }
    VESSA_SYNC_POINT("monitor.scan.begins", this);
    std::list<NotifyInfo> changes;
    // A scan without memory for what it finds is a failed scan: nothing is compared.
    bool scanned = false;
    Contain([&] { scanned = Scan(changes); });
    if (!scanned && stopping_.load())
        LOG_PLAIN(kInformation, "config monitor stopped, check loop exit");
    else if (!scanned)
        LOG_PLAIN(kError, "find config file recursive failed");
    else if (!changes.empty())
        Deliver(changes);
}

// One scan, compared with the one before it.
bool ConfigMonitor::Scan(std::list<NotifyInfo>& changes) {
    std::list<FileInfo> found;
    if (!FindConfigFileInFolder(plugin_root_, config_filename_, found)) return false;
    // Kept: the removal of the last list files is not reported until there is some file again.
    if (found.empty()) return true;
    if (!AreTheSame(previous_files_, found)) changes = Compare(previous_files_, found);
    previous_files_.swap(found);
    return true;
}

void ConfigMonitor::Deliver(const std::list<NotifyInfo>& changes) {
    if (!started_.load()) {
        LOG_PLAIN(kInformation, "config monitor stopped, check loop exit");
        return;
    }
    VESSA_SYNC_POINT("monitor.changes.are_told", this);
    // The receiver says itself what it could not do; the next scan must come all the same.
    Contain([&] { receiver_(*this, changes); });
}

// The usual case, without an index: the same files in the same order. A path that a folder lists
// twice is left to the comparison.
bool ConfigMonitor::AreTheSame(const std::list<FileInfo>& previous,
                               const std::list<FileInfo>& found) {
    if (previous.size() != found.size()) return false;
    const std::string* last = nullptr;
    auto former = previous.begin();
    for (const FileInfo& file : found) {
        if (former->stamp != file.stamp || former->path != file.path) return false;
        if (last != nullptr && *last == file.path) return false;
        last = &file.path;
        ++former;
    }
    return true;
}

std::list<ConfigMonitor::NotifyInfo> ConfigMonitor::Compare(const std::list<FileInfo>& previous,
                                                            const std::list<FileInfo>& found) {
    FileIndex index(previous);
    std::list<NotifyInfo> changes;
    for (const FileInfo& file : found) {
        FileIndex::Known* const known = index.Find(file.path);
        if (known == nullptr) {
            changes.push_back(NotifyInfo{file.path, kAdded});
            continue;
        }
        known->seen = true;
        if (known->file->stamp != file.stamp) changes.push_back(NotifyInfo{file.path, kChanged});
    }
    for (const FileIndex::Known& known : index.known()) {
        if (!known.seen) changes.push_back(NotifyInfo{known.file->path, kDeleted});
    }
    return changes;
}

bool ConfigMonitor::FindConfigFileInFolder(const std::string& folder,
                                           const std::string& config_filename,
                                           std::list<FileInfo>& found) {
    // Of a failed scan nothing is kept: it may have come to the largest number of folders.
    struct Undo {
        FolderQueue* queue;
        std::list<FileInfo>& found;
        ~Undo() {
            if (queue == nullptr) return;
            queue->Free();
            found.clear();
        }
    } undo{&queue_, found};
    queue_.Begin(folder);
    for (size_t at = 0; at < queue_.size(); ++at) {
        if (stopping_.load() || !ListFolder(at, config_filename, found)) return false;
    }
    undo.queue = nullptr;
    return true;
}

// Takes the list files of one folder and queues its folders.
bool ConfigMonitor::ListFolder(size_t at, const std::string& config_filename,
                               std::list<FileInfo>& found) {
    queue_.PathOf(at, folder_path_);
    void* const directory = TOVA_OpenDir(folder_path_.c_str());
    if (directory == nullptr) {
        const int error = TOVA_GetSystemLastError();
        LOG_FORMAT(kError, "tova open dir failed {0}/{0:X}, folder path {1}", error, folder_path_);
        return false;
    }
    const DirectoryCloser closer{directory};
    tova_dirent_t entry;
    while (TOVA_FindFileInDir(directory, &entry) == 0) {
        if (entry.type == TOVA_DIRENT_FILE && config_filename == entry.name) {
            found.push_back(
                FileInfo{queue_.PathOfFile(at, folder_path_, config_filename), entry.stamp});
            continue;
        }
        if (entry.type != TOVA_DIRENT_FOLDER || IsParentName(entry.name)) continue;
        if (IsOwnName(entry.name))
            queue_.SetIdentity(at, entry.volume, entry.file_id);
        else if (!QueueFolder(at, entry.name, entry.volume, entry.file_id))
            return false;
    }
    return true;
}

// False: there are too many.
bool ConfigMonitor::QueueFolder(size_t parent, const char* name, uint64_t volume,
                                uint64_t file_id) {
    if (!CanBeExpressed(name) || queue_.IsOwnAncestor(parent, volume, file_id)) return true;
    if (queue_.size() >= kMaxQueuedFolders) {
        process::SetErrorTooManyFolders();
        const int error = TOVA_GetSystemLastError();
        LOG_FORMAT(kError, "tova open dir failed {0}/{0:X}, folder path {1}", error, folder_path_);
        return false;
    }
    queue_.Add(parent, name, volume, file_id);
    return true;
}
