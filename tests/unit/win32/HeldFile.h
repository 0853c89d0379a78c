// HeldFile.h: a file or folder that somebody else has open.
#ifndef VESSA_TESTS_UNIT_WIN32_HELDFILE_H
#define VESSA_TESTS_UNIT_WIN32_HELDFILE_H

#include <windows.h>

#include <string>

#include "support/win32/WideText.h"

namespace vessa_test {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Opened to do this, while others may do that: kShareAll, or 0 for nobody.
class HeldFile {
  public:
    HeldFile(const std::string& path, DWORD access, DWORD others)
        : handle_(CreateFileW(WideText(path).c_str(), access, others, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr)) {}
    ~HeldFile() {
        if (IsHeld()) CloseHandle(handle_);
    }
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

    bool IsHeld() const { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return handle_; }

  private:
    const HANDLE handle_;
};

}  // namespace vessa_test

#endif
