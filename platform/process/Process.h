// What the library asks of the system about itself and its process: a slot for each thread,
// its own module file, a reference to itself, and reading of regular files. One folder of
// sources for each system; nothing above it asks which system it runs on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace process {

// One pointer for each thread, null until set. Set gives false when the system has no room for
// it. A thread that ends with a value hands it to ThreadSlotEnd, which whoever uses the slot
// defines; the slot is null by then and may be set again.
void* ThreadSlotGet();
bool ThreadSlotSet(void* value);
void ThreadSlotEnd(void* value);
// Gives the slot back to the system, before the library's code goes away. The threads that have a
// value keep it to themselves: ThreadSlotEnd is not called any more.
void ThreadSlotFree();

// Lets other threads run while the caller waits for a few instructions of one of them. round is
// the number of calls before in this wait: the first ones only give way, later ones sleep for a
// moment, so that a thread of whatever lower priority gets to its end.
void GiveWay(unsigned round);
// That many calls with ascending rounds take a millisecond or more.
constexpr unsigned kRoundsOfAMillisecond = 64;

// Whether the system can run a full memory fence on all of the process's running threads, which
// the first of the two asks and prepares. False from the second: it cannot any more.
bool CanFenceAllThreads();
bool FenceAllThreads();

// The file that holds this code, as the system's loader was told it: absolute, links not
// resolved. Empty when it cannot be found.
std::string ModuleFile();

// Keeps this code mapped whatever its users unload. Null when the system refuses, which is
// so for code that is part of the program itself and cannot be unloaded.
void* ReferenceSelf();
void ReleaseSelf(void* reference);

// True during the destruction of global objects when it is the library that goes away, not
// the process: nobody can come any more then.
bool BeingUnloaded();
// True during the destruction of global objects where the system has ended every other thread
// before it: nobody answers any more, and whatever they held stays held.
bool OtherThreadsAreGone();

int32_t ProcessId();

// A regular file, open for reading every byte as it is.
//
// Thread safety: none. Invariants: closed with the object; size_ is that of the moment it was
// opened.
class RegularFile {
  public:
    RegularFile() = default;
    ~RegularFile();
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;

    // Once. Refuses everything else without blocking. False: failure, with the thread's last
    // error set.
    bool Open(const char* path);
    int64_t size() const { return size_; }

    // Reads the whole of a file of that size. The buffer has room for one byte more, and a file
    // that has grown by then shows it there. Gives how many bytes it read; negative on failure.
    int64_t ReadWhole(char* buffer, size_t size);

    // What the system's folder of sources has it as.
    intptr_t handle() const { return handle_; }

  private:
    static constexpr intptr_t kNone = -1;

    intptr_t handle_ = kNone;
    int64_t size_ = 0;
};

// The thread's last error for refusals that the system itself did not make.
void SetErrorFileTooLarge();
void SetErrorFileChanged();
void SetErrorTooManyFolders();

}  // namespace process
