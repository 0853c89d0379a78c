#include "win32/Wide.h"

#include <windows.h>

#include <climits>
#include <cstring>
#include <vector>

namespace win32 {
namespace {

constexpr wchar_t kPrefix[] = L"\\\\?\\";
constexpr wchar_t kNetworkPrefix[] = L"\\\\?\\UNC\\";
// How the devices are named, also those that a bare name like "nul" stands for.
constexpr wchar_t kDevicePrefix[] = L"\\\\.\\";
constexpr size_t kPrefixLength = 4;
constexpr size_t kNetworkPrefixLength = 8;
// A folder's path must leave room for a short name in it.
constexpr size_t kShortPathLength = MAX_PATH - 12;

using AskForShutdown = BOOLEAN(WINAPI*)();

AskForShutdown FindAskForShutdown() {
    const HMODULE system = GetModuleHandleW(L"ntdll.dll");
    const FARPROC symbol =
        system == nullptr ? nullptr : GetProcAddress(system, "RtlDllShutdownInProgress");
    AskForShutdown ask = nullptr;
    std::memcpy(&ask, &symbol, sizeof ask);
    return ask;
}

// Looked up while the library is loaded: whoever asks may hold any lock, and a look-up takes the
// loader's.
const AskForShutdown ask_for_shutdown = FindAskForShutdown();

bool Fail(DWORD error) {
    SetLastError(error);
    return false;
}

bool StartsWith(const std::wstring& text, const wchar_t* start) {
    return text.compare(0, std::wcslen(start), start) == 0;
}

bool IsLetter(wchar_t c) {
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

bool HasDrive(const std::wstring& path) {
    return path.size() >= 3 && IsLetter(path[0]) && path[1] == L':' && path[2] == L'\\';
}

bool FullPath(const std::wstring& path, std::wstring& full) {
    const DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (size == 0) return false;
    full.assign(size, L'\0');
    const DWORD length = GetFullPathNameW(path.c_str(), size, full.data(), nullptr);
    // Another thread may have changed the current folder in between.
    if (length == 0 || length >= size) return length != 0 && Fail(ERROR_BUFFER_OVERFLOW);
    full.resize(length);
    return true;
}

// What is not absolute: relative, relative to a drive, rooted. The system is asked for the folder
// that it begins in, and not for the rest, whose names it would change.
bool MakeAbsolute(std::wstring& path) {
    std::wstring full;
    if (!FullPath(path, full)) return false;
    if (StartsWith(full, kDevicePrefix)) return Fail(ERROR_BAD_PATHNAME);
    std::wstring begin = L".";
    size_t rest = 0;
    if (path[0] == L'\\') {
        begin = L"\\";
    } else if (path.size() >= 2 && IsLetter(path[0]) && path[1] == L':') {
        begin = path.substr(0, 2) + L".";
        rest = 2;
    }
    if (!FullPath(begin, full)) return false;
    path = full + L"\\" + path.substr(rest);
    return true;
}

// The parts of what follows the drive, or the share, whose name is kept whatever it is.
std::wstring WithoutSteps(const std::wstring& path, size_t kept_parts) {
    std::vector<std::wstring> parts;
    for (size_t begin = 0; begin <= path.size();) {
        size_t end = path.find(L'\\', begin);
        if (end == std::wstring::npos) end = path.size();
        const std::wstring part = path.substr(begin, end - begin);
        if (part == L"..") {
            if (parts.size() > kept_parts) parts.pop_back();
        } else if (!part.empty() && part != L".") {
            parts.push_back(part);
        }
        begin = end + 1;
    }
    std::wstring joined;
    for (const std::wstring& part : parts) joined += (joined.empty() ? L"" : L"\\") + part;
    // "C:" alone would be the drive's current folder.
    if (parts.size() <= kept_parts) joined += L'\\';
    return joined;
}

}  // namespace

bool Widen(const std::string& text, std::wstring& wide) {
    wide.clear();
    if (text.empty()) return true;
    if (text.size() > INT_MAX) return Fail(ERROR_FILENAME_EXCED_RANGE);
    const int length = static_cast<int>(text.size());
    const int size =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, nullptr, 0);
    if (size <= 0) return false;
    wide.resize(static_cast<size_t>(size));
    return MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, wide.data(),
                               size) == size;
}

bool Widen(const char* text, std::wstring& wide) {
    return Widen(std::string(text), wide);
}

bool Narrow(const wchar_t* wide, std::string& text) {
    const size_t length = std::wcslen(wide);
    text.clear();
    if (length == 0) return true;
    if (length > INT_MAX / 3) return Fail(ERROR_FILENAME_EXCED_RANGE);
    const int units = static_cast<int>(length);
    const int size = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide, units, nullptr, 0,
                                         nullptr, nullptr);
    if (size <= 0) return false;
    text.resize(static_cast<size_t>(size));
    return WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide, units, text.data(), size,
                               nullptr, nullptr) == size;
}

bool VerbatimPath(const char* path, std::wstring& verbatim) {
    std::wstring wide;
    if (!Widen(path, wide)) return false;
    if (wide.empty()) return Fail(ERROR_PATH_NOT_FOUND);
    for (wchar_t& c : wide) {
        if (c == L'/') c = L'\\';
    }
    if (StartsWith(wide, kNetworkPrefix)) {
        wide = L"\\\\" + wide.substr(kNetworkPrefixLength);
    } else if (StartsWith(wide, kPrefix)) {
        // A drive, or a volume by its number.
        verbatim = kPrefix + WithoutSteps(wide.substr(kPrefixLength), 1);
        return true;
    } else if (!HasDrive(wide) && !StartsWith(wide, L"\\\\")) {
        if (!MakeAbsolute(wide)) return false;
    }
    if (HasDrive(wide)) {
        verbatim = kPrefix + WithoutSteps(wide, 1);
        return true;
    }
    if (!StartsWith(wide, L"\\\\") || StartsWith(wide, kDevicePrefix))
        return Fail(ERROR_BAD_PATHNAME);
    verbatim = kNetworkPrefix + WithoutSteps(wide, 2);
    return true;
}

std::wstring WithoutPrefix(const std::wstring& verbatim) {
    std::wstring plain = StartsWith(verbatim, kNetworkPrefix)
                             ? L"\\\\" + verbatim.substr(kNetworkPrefixLength)
                             : verbatim.substr(kPrefixLength);
    if (plain.size() >= kShortPathLength) return verbatim;
    // The system reads some names as others: one that ends in a full stop, one like a device's.
    wchar_t read[MAX_PATH];
    const DWORD length = GetFullPathNameW(plain.c_str(), MAX_PATH, read, nullptr);
    return length == plain.size() && plain == read ? plain : verbatim;
}

std::wstring ModuleFileOf(void* module) {
    std::wstring file(MAX_PATH, L'\0');
    for (;;) {
        const DWORD size = static_cast<DWORD>(file.size());
        const DWORD length = GetModuleFileNameW(static_cast<HMODULE>(module), file.data(), size);
        if (length == 0) return std::wstring();
        if (length < size) {
            file.resize(length);
            return file;
        }
        if (size > 0x10000) return std::wstring();
        file.resize(file.size() * 2);
    }
}

bool ProcessIsEnding() {
    return ask_for_shutdown != nullptr && ask_for_shutdown() != FALSE;
}

std::string ErrorText(unsigned long error) {
    wchar_t buffer[512];
    DWORD length =
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                       0, buffer, static_cast<DWORD>(sizeof buffer / sizeof buffer[0]), nullptr);
    while (length > 0 && (buffer[length - 1] == L'\n' || buffer[length - 1] == L'\r' ||
                          buffer[length - 1] == L' '))
        --length;
    std::string text;
    if (length == 0 || !Narrow(std::wstring(buffer, length).c_str(), text)) return std::string();
    return text;
}

}  // namespace win32
