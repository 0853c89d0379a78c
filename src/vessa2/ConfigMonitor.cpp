#include "vessa2/ConfigMonitor.h"

#include <cstring>
#include <map>

#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "common/NormalizePath.h"
#include "process/Process.h"
#include "tova.h"

// A folder on its way through a scan. Its parent stands before it in the queue.
struct ConfigMonitor::QueuedFolder {
    static constexpr size_t kNoParent = static_cast<size_t>(-1);

    std::string path;
    size_t parent = kNoParent;
    uint64_t volume = 0;
    uint64_t file_id = 0;
};

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
    timer_.StopTimer();
    plugin_root_.clear();
    config_filename_.clear();
    receiver_.Set(Receiver::Target());
    previous_files_.clear();
    stopping_.store(false);
    LOG_PLAIN(kInformation, "stop config monitor succeeded");
    return true;
}

void ConfigMonitor::MonitorTimerProc() {
    if (!started_.load()) {
        LOG_PLAIN(kInformation, "config monitor stopped, check loop exit");
        return;
    }
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
    changes = Compare(previous_files_, found);
    previous_files_.swap(found);
    return true;
}

void ConfigMonitor::Deliver(const std::list<NotifyInfo>& changes) {
    if (!started_.load()) {
        LOG_PLAIN(kInformation, "config monitor stopped, check loop exit");
        return;
    }
    // The receiver says itself what it could not do; the next scan must come all the same.
    Contain([&] { receiver_(*this, changes); });
}

std::list<ConfigMonitor::NotifyInfo> ConfigMonitor::Compare(const std::list<FileInfo>& previous,
                                                            const std::list<FileInfo>& found) {
    struct Known {
        uint64_t stamp;
        bool seen;
    };
    std::map<std::string, Known> index;
    for (const FileInfo& file : previous) index[file.path] = Known{file.stamp, false};
    std::list<NotifyInfo> changes;
    for (const FileInfo& file : found) {
        const auto known = index.find(file.path);
        if (known == index.end()) {
            changes.push_back(NotifyInfo{file.path, kAdded});
            continue;
        }
        known->second.seen = true;
        if (known->second.stamp != file.stamp) changes.push_back(NotifyInfo{file.path, kChanged});
    }
    for (const auto& known : index) {
        if (!known.second.seen) changes.push_back(NotifyInfo{known.first, kDeleted});
    }
    return changes;
}

bool ConfigMonitor::FindConfigFileInFolder(const std::string& folder,
                                           const std::string& config_filename,
                                           std::list<FileInfo>& found) {
    FolderQueue queue(1);
    queue[0].path = NormalizePath(folder);
    for (size_t at = 0; at < queue.size(); ++at) {
        if (stopping_.load() || !ListFolder(queue, at, config_filename, found)) {
            found.clear();
            return false;
        }
    }
    return true;
}

// Takes the list files of one folder and queues its folders.
bool ConfigMonitor::ListFolder(FolderQueue& queue, size_t at, const std::string& config_filename,
                               std::list<FileInfo>& found) {
    const std::string path = queue[at].path;
    void* const directory = TOVA_OpenDir(path.c_str());
    if (directory == nullptr) {
        const int error = TOVA_GetSystemLastError();
        LOG_FORMAT(kError, "tova open dir failed {0}/{0:X}, folder path {1}", error, path);
        return false;
    }
    const DirectoryCloser closer{directory};
    tova_dirent_t entry;
    while (TOVA_FindFileInDir(directory, &entry) == 0) {
        if (entry.type == TOVA_DIRENT_FILE && config_filename == entry.name) {
            found.push_back(FileInfo{NormalizePath(path + "/" + config_filename), entry.stamp});
            continue;
        }
        if (entry.type != TOVA_DIRENT_FOLDER || IsParentName(entry.name)) continue;
        if (IsOwnName(entry.name)) {
            queue[at].volume = entry.volume;
            queue[at].file_id = entry.file_id;
            continue;
        }
        if (!CanBeExpressed(entry.name) || IsOwnAncestor(queue, at, entry.volume, entry.file_id))
            continue;
        if (queue.size() >= kMaxQueuedFolders) {
            process::SetErrorTooManyFolders();
            const int error = TOVA_GetSystemLastError();
            LOG_FORMAT(kError, "tova open dir failed {0}/{0:X}, folder path {1}", error, path);
            return false;
        }
        QueuedFolder next;
        next.path = NormalizePath(path + "/" + entry.name);
        next.parent = at;
        next.volume = entry.volume;
        next.file_id = entry.file_id;
        queue.push_back(next);
    }
    return true;
}

// Whether the folder is the one at this place of the queue or one above it on the walked path.
bool ConfigMonitor::IsOwnAncestor(const FolderQueue& queue, size_t at, uint64_t volume,
                                  uint64_t file_id) {
    for (; at != QueuedFolder::kNoParent; at = queue[at].parent) {
        if (queue[at].volume == volume && queue[at].file_id == file_id) return true;
    }
    return false;
}
