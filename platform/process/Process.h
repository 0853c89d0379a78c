// What the library asks of the system about itself and its process: a slot for each thread,
// its own module file, a reference to itself, and opening of regular files. One folder of
// sources for each system; nothing above it asks which system it runs on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace process {

// One pointer for each thread, null until set. There is no clean-up at a thread's end:
// whoever sets the slot resets it. Set gives false when the system has no room for it.
void* ThreadSlotGet();
bool ThreadSlotSet(void* value);
// Gives the slot back to the system, before the library's code goes away.
void ThreadSlotFree();

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
// Reads the whole of a file of that size, wherever its position is. The buffer has room for one
// byte more, and a file that has grown by then shows it there. Gives how many bytes it read;
// negative on failure.
int64_t ReadWhole(FILE* file, char* buffer, size_t size);

// The thread's last error for refusals that the system itself did not make.
void SetErrorFileTooLarge();
void SetErrorFileChanged();
void SetErrorTooManyFolders();

}  // namespace process
