#include "support/ThreadEnd.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vessa_test {
namespace {

// At the end of the process the other threads are gone, and with them whoever holds a lock.
bool ProcessIsEnding() {
    const FARPROC found =
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
    BOOLEAN(WINAPI * in_progress)() = nullptr;
    std::memcpy(&in_progress, &found, sizeof found);
    return in_progress != nullptr && in_progress() != 0;
}

void WINAPI Tell(void* function) {
    if (!ProcessIsEnding()) reinterpret_cast<void (*)()>(function)();
}

DWORD MakeSlot() {
    const DWORD slot = FlsAlloc(&Tell);
    if (slot != FLS_OUT_OF_INDEXES) return slot;
    std::fputs("the system has no slot for the ends of threads\n", stderr);
    std::abort();
}

}  // namespace

// Not a thread_local object: on threads that the compiler's library did not start, these lose
// their memory before their destructors run.
void TellOfThreadEnd(void (*function)()) {
    static const DWORD slot = MakeSlot();
    FlsSetValue(slot, reinterpret_cast<void*>(function));
}

}  // namespace vessa_test
