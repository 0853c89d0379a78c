#ifndef TESTS_TOVA_WIN32_SYSTEM_H
#define TESTS_TOVA_WIN32_SYSTEM_H

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

// The system's headers rename functions of others too.
#undef CopyFile

namespace tova_test {

inline std::wstring Wide(const std::string& text) {
    const int length = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), size);
    return wide;
}

// An absolute path as the system takes it without looking at it again: for names that it would
// change otherwise, and for long ones.
inline std::wstring Verbatim(const std::string& path) {
    std::wstring wide = Wide(path);
    for (wchar_t& c : wide) {
        if (c == L'/') c = L'\\';
    }
    return L"\\\\?\\" + wide;
}

// A file or folder that is open for as long as this lives.
class Open {
  public:
    Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING)
        : handle_(CreateFileW(path.c_str(), access, share, nullptr, disposition,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr)) {
        if (handle_ == INVALID_HANDLE_VALUE) throw std::runtime_error("cannot be opened");
    }
    ~Open() { CloseHandle(handle_); }
    Open(const Open&) = delete;
    Open& operator=(const Open&) = delete;

    HANDLE Get() const { return handle_; }
    void Write(const std::string& text) const {
        DWORD written = 0;
        if (!WriteFile(handle_, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
            written != text.size())
            throw std::runtime_error("cannot be written");
    }

  private:
    const HANDLE handle_;
};

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// How many handles this process has, from the system's list of all handles: not every system keeps
// the number itself.
inline size_t OpenHandles() {
    struct Entry {
        void* object;
        ULONG_PTR process;
        ULONG_PTR handle;
        ULONG access;
        ULONG kind;
        ULONG attributes;
        ULONG reserved;
    };
    struct Listing {
        ULONG_PTR count;
        ULONG_PTR reserved;
        Entry entries[1];
    };
    using Query = LONG(WINAPI*)(int kind, void* to, ULONG size, ULONG* needed);
    constexpr int kAllHandles = 64;
    const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<ULONG_PTR> buffer(size_t{1} << 16);
    while (query(kAllHandles, buffer.data(), static_cast<ULONG>(buffer.size() * sizeof(ULONG_PTR)),
                 nullptr) != 0) {
        if (buffer.size() > size_t{1} << 26) throw std::runtime_error("no list of handles");
        buffer.resize(buffer.size() * 2);
    }
    const Listing& listing = *reinterpret_cast<const Listing*>(buffer.data());
    size_t count = 0;
    for (ULONG_PTR i = 0; i < listing.count; ++i) {
        if (listing.entries[i].process == GetCurrentProcessId()) ++count;
    }
    return count;
}

}  // namespace tova_test

#endif
