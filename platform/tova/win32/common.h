#ifndef TOVA_WIN32_COMMON_H
#define TOVA_WIN32_COMMON_H

#include <windows.h>

#include "tova.h"

namespace tova {

// A failing call's result: the error, which is also the last error.
inline int Fail(DWORD error) {
    SetLastError(error);
    return static_cast<int>(error);
}

// For a call of the system that failed and has set the last error. Never 0.
inline int FailWithLastError() {
    const DWORD error = GetLastError();
    return Fail(error != 0 ? error : DWORD{ERROR_GEN_FAILURE});
}

inline void AddReference(tova_shared_t* block) {
    TOVA_AtomicAdd(&block->references, 1);
}

// True: that was the last one, the block is the caller's to free.
inline bool DropReference(tova_shared_t* block) {
    return TOVA_AtomicAdd(&block->references, -1) == 1;
}

class Handle {
  public:
    explicit Handle(HANDLE value) : value_(value) {}
    ~Handle() {
        if (IsValid()) CloseHandle(value_);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    bool IsValid() const { return value_ != INVALID_HANDLE_VALUE && value_ != nullptr; }
    HANDLE Get() const { return value_; }

  private:
    const HANDLE value_;
};

// Nobody who writes, renames or deletes is kept from it.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

}  // namespace tova

#endif
