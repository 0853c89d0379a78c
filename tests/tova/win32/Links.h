#ifndef TESTS_TOVA_WIN32_LINKS_H
#define TESTS_TOVA_WIN32_LINKS_H

#include <aclapi.h>
#include <winioctl.h>

#include <cstring>
#include <string>
#include <vector>

#include "System.h"

namespace tova_test {

// Makes a folder that is a junction to another, or gives false and leaves none.
inline bool MakeJunction(const std::string& target, const std::string& junction) {
    // As the system lays it out: sizes in bytes, both names one after the other.
    struct {
        DWORD tag = IO_REPARSE_TAG_MOUNT_POINT;
        WORD size = 0;
        WORD reserved = 0;
        WORD target_offset = 0;
        WORD target_size = 0;
        WORD shown_offset = 0;
        WORD shown_size = 0;
        WCHAR names[1024] = {};
    } point;
    std::wstring name = L"\\??\\" + Wide(target);
    std::memcpy(point.names, name.c_str(), name.size() * sizeof(wchar_t));
    point.target_size = static_cast<WORD>(name.size() * sizeof(wchar_t));
    point.shown_offset = static_cast<WORD>(point.target_size + sizeof(wchar_t));
    point.size = static_cast<WORD>(point.shown_offset + sizeof(wchar_t) + 4 * sizeof(WORD));
    const std::wstring path = Wide(junction);
    if (!CreateDirectoryW(path.c_str(), nullptr)) return false;
    const HANDLE folder =
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    DWORD ignored = 0;
    const bool made =
        DeviceIoControl(folder, FSCTL_SET_REPARSE_POINT, &point, point.size + 2 * sizeof(DWORD),
                        nullptr, 0, &ignored, nullptr) != 0;
    CloseHandle(folder);
    if (!made) RemoveDirectoryW(path.c_str());
    return made;
}

// Forbids everybody to read a folder for a while.
class ReadingDenied {
  public:
    explicit ReadingDenied(const std::string& folder) : folder_(Wide(folder)) {
        EXPLICIT_ACCESSW deny{};
        deny.grfAccessPermissions = FILE_LIST_DIRECTORY;
        deny.grfAccessMode = DENY_ACCESS;
        deny.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
        std::wstring everybody = L"CURRENT_USER";
        deny.Trustee.ptstrName = everybody.data();
        PACL list = nullptr;
        if (SetEntriesInAclW(1, &deny, nullptr, &list) != ERROR_SUCCESS) return;
        Set(list);
        LocalFree(list);
    }
    ~ReadingDenied() { Set(nullptr); }
    ReadingDenied(const ReadingDenied&) = delete;
    ReadingDenied& operator=(const ReadingDenied&) = delete;

    // To some users and systems it means nothing.
    bool Holds() const {
        const HANDLE handle = CreateFileW(folder_.c_str(), FILE_LIST_DIRECTORY, kShareAll, nullptr,
                                          OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        if (handle == INVALID_HANDLE_VALUE) return true;
        CloseHandle(handle);
        return false;
    }

  private:
    void Set(PACL list) {
        SetNamedSecurityInfoW(folder_.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, list, nullptr);
    }

    std::wstring folder_;
};

}  // namespace tova_test

#endif
