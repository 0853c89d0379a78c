#include <process.h>

#include <new>

#include "common.h"

struct tova_thread {
    HANDLE native;
    unsigned id;
    tova_entry_t entry;
    void* argument;
};

namespace {

constexpr unsigned kStackSizeBytes = 8u << 20;

unsigned __stdcall RunThread(void* argument) {
    const tova_thread* const thread = static_cast<const tova_thread*>(argument);
    thread->entry(thread->argument);
    return 0;
}

}  // namespace

tova_thread_t TOVA_Thread_Create(tova_entry_t entry, void* argument, int, int, int, int) {
    if (entry == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    tova_thread* const thread = new (std::nothrow) tova_thread{nullptr, 0, entry, argument};
    if (thread == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    SetLastError(0);
    // Suspended, so that the handle and the number are there before the entry may ask for them.
    thread->native = reinterpret_cast<HANDLE>(
        _beginthreadex(nullptr, kStackSizeBytes, &RunThread, thread,
                       CREATE_SUSPENDED | STACK_SIZE_PARAM_IS_A_RESERVATION, &thread->id));
    if (thread->native == nullptr) {
        const DWORD error = GetLastError();
        delete thread;
        SetLastError(error != 0 ? error : DWORD{ERROR_NOT_ENOUGH_MEMORY});
        return nullptr;
    }
    ResumeThread(thread->native);
    return thread;
}

int TOVA_Thread_Wait(tova_thread_t thread) {
    if (thread == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    if (thread->id == GetCurrentThreadId()) return tova::Fail(ERROR_POSSIBLE_DEADLOCK);
    if (WaitForSingleObject(thread->native, INFINITE) != WAIT_OBJECT_0)
        return tova::FailWithLastError();
    CloseHandle(thread->native);
    delete thread;
    return 0;
}
