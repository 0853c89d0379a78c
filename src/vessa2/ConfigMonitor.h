#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <string>

#include "common/Delegate.h"
#include "common/Timer.h"
#include "vessa2/FolderQueue.h"

// Finds every list file below the plug-in root, once at the start and then every 30 seconds,
// and hands the differences between two scans to one receiver. It knows nothing of the files'
// contents.
//
// Thread safety: Start and Stop by one owner, one at a time. The first scan runs inside Start,
// later ones on the timer's thread; the receiver is called on the scanning thread, and the
// next scan begins after it returned.
// Invariants: what a scan uses changes only while no timer runs. The previous files are those
// of the last scan that was compared; a failed start keeps them, because what it reported
// stays in force.
class ConfigMonitor {
  public:
    // One list file that a scan found.
    struct FileInfo {
        std::string path;    // normalised
        uint64_t stamp = 0;  // changes whenever the file is rewritten
    };

    enum NotifyType : int32_t { kAdded = 1, kDeleted = 2, kChanged = 3 };

    struct NotifyInfo {
        std::string path;
        int32_t notify_type = kAdded;
    };

    using Receiver = Delegate<void(const ConfigMonitor&, const std::list<NotifyInfo>&)>;

    static constexpr unsigned int kScanPeriodMs = 30000;
    // More folders than any installation has: a tree of links that multiplies without end.
    static constexpr size_t kMaxQueuedFolders = 1000000;

    ConfigMonitor() = default;
    ConfigMonitor(const ConfigMonitor&) = delete;
    ConfigMonitor& operator=(const ConfigMonitor&) = delete;

    // False: an empty argument, or no memory or thread for the timer. What the first scan
    // reported is not taken back.
    bool Start(const std::string& plugin_root, const std::string& config_filename,
               Receiver receiver);
    // Waits for a scan in progress. Never false.
    bool Stop();

    // One scan and comparison: the timer's callback.
    void MonitorTimerProc();

    // Breadth first, links followed, except into a folder that is one of its own ancestors on
    // the way there. False: a folder could not be read, there are too many, or the monitor is
    // being stopped; found is empty then.
    bool FindConfigFileInFolder(const std::string& folder, const std::string& config_filename,
                                std::list<FileInfo>& found);

    // For the end of the process: asks the scanning thread to end and waits a bounded time.
    void AskToEnd(unsigned int wait_ms) { timer_.AskToEnd(wait_ms); }

  private:
    bool Scan(std::list<NotifyInfo>& changes);
    bool ListFolder(size_t at, const std::string& config_filename, std::list<FileInfo>& found);
    bool QueueFolder(size_t parent, const char* name, uint64_t volume, uint64_t file_id);
    static bool AreTheSame(const std::list<FileInfo>& previous, const std::list<FileInfo>& found);
    static std::list<NotifyInfo> Compare(const std::list<FileInfo>& previous,
                                         const std::list<FileInfo>& found);
    void Deliver(const std::list<NotifyInfo>& changes);

    std::string plugin_root_;
    std::string config_filename_;
    std::list<FileInfo> previous_files_;
    FolderQueue queue_;  // with folder_path_: a scan's own, kept for their memory
    std::string folder_path_;
    Receiver receiver_;
    Timer timer_;
    std::atomic<bool> started_{false};
    std::atomic<bool> stopping_{false};  // ends a scan between two folders

    friend struct ConfigMonitorAccess;  // tests compare two scans of their own
};
