// What the library asks of the system about itself and its process: a slot for each thread,
// its own module file, a reference to itself, and opening of regular files. One folder of
// sources for each system; nothing above it asks which system it runs on.
#pragma once

#include <cstdint>
#include <cstdio>
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

// Opens a regular file for binary reading and refuses everything else without blocking.
// Null: failure, with the thread's last error set.
FILE* OpenRegularFile(const char* path);
// The file's size, with the position at its end; negative on failure.
int64_t SeekToEnd(FILE* file);

// The thread's last error for refusals that the system itself did not make.
void SetErrorFileTooLarge();
void SetErrorFileChanged();
void SetErrorTooManyFolders();

}  // namespace process
