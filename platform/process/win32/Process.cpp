#include "process/Process.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <new>

#include "win32/Wide.h"

namespace process {
namespace {

void WINAPI OnThreadEnd(void* value);

// A fiber's slot, because only those tell of a thread's end. A thread without fibers is one.
struct ThreadKey {
    DWORD key = FlsAlloc(&OnThreadEnd);
};

ThreadKey& Key() {
    static ThreadKey key;
    return key;
}

// The system also calls it, for every thread with a value, when the slot is given back.
void WINAPI OnThreadEnd(void* value) {
    if (value != nullptr && Key().key != FLS_OUT_OF_INDEXES) ThreadSlotEnd(value);
}

// Whatever its address, it is in this code.
const char anchor = 0;

HMODULE OwnModule(DWORD more_flags) {
    HMODULE own = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | more_flags,
                            reinterpret_cast<LPCWSTR>(&anchor), &own))
        return nullptr;
    return own;
}

HMODULE OwnModule() {
    return OwnModule(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT);
}

bool IsProgram(HMODULE module) {
    return module == GetModuleHandleW(nullptr);
}

// A module is never loaded by such a name, but the system may report it so.
std::wstring WithoutPrefix(const std::wstring& file) {
    return file.compare(0, 4, L"\\\\?\\") == 0 ? win32::WithoutPrefix(file) : file;
}

/*
 * The library's file by its well-known name, as the system's narrow call gives it. Empty where
 * that answer is of no use: the library has another name, another library has this one, the text
 * is cut short, or it has letters that the narrow text cannot hold and shows as others.
 */
std::string FileByName(HMODULE own, const std::wstring& file) {
    const HMODULE named = GetModuleHandleA("vessa.dll");
    if (named == nullptr || named != own) return std::string();
    char buffer[260] = {};
    const DWORD length = GetModuleFileNameA(named, buffer, 259);
    if (length == 0 || length >= 259) return std::string();
    const std::string text(buffer, length);
    return std::wstring(text.begin(), text.end()) == file ? text : std::string();
}

}  // namespace

void* ThreadSlotGet() {
    const DWORD key = Key().key;
    if (key == FLS_OUT_OF_INDEXES) return nullptr;
    // The system's call resets the last error, which its reader may not have read yet.
    const DWORD error = GetLastError();
    void* const value = FlsGetValue(key);
    SetLastError(error);
    return value;
}

bool ThreadSlotSet(void* value) {
    const DWORD key = Key().key;
    return key != FLS_OUT_OF_INDEXES && FlsSetValue(key, value);
}

void ThreadSlotFree() {
    ThreadKey& key = Key();
    const DWORD freed = key.key;
    // Said first: the system calls back for every thread with a value.
    key.key = FLS_OUT_OF_INDEXES;
    if (freed != FLS_OUT_OF_INDEXES) FlsFree(freed);
}

void GiveWay(unsigned round) {
    constexpr unsigned kYields = 32;
    constexpr DWORD kPauseMs = 1;
    if (round >= kYields)
        Sleep(kPauseMs);
    else
        SwitchToThread();
}

// There is a call for it, which not every system that runs such programs carries out, and none of
// them says so.
bool CanFenceAllThreads() {
    return false;
}

bool FenceAllThreads() {
    return false;
}

std::string ModuleFile() {
    const HMODULE own = OwnModule();
    if (own == nullptr) return std::string();
    const std::wstring file = WithoutPrefix(win32::ModuleFileOf(own));
    std::string text = FileByName(own, file);
    if (text.empty() && !win32::Narrow(file.c_str(), text)) text.clear();
    return text;
}

void* ReferenceSelf() {
    const HMODULE own = OwnModule();
    return own == nullptr || IsProgram(own) ? nullptr : OwnModule(0);
}

void ReleaseSelf(void* reference) {
    if (reference != nullptr) FreeLibrary(static_cast<HMODULE>(reference));
}

bool BeingUnloaded() {
    return !IsProgram(OwnModule()) && !win32::ProcessIsEnding();
}

bool OtherThreadsAreGone() {
    return win32::ProcessIsEnding();
}

int32_t ProcessId() {
    return static_cast<int32_t>(GetCurrentProcessId());
}

RegularFile::~RegularFile() {
    if (handle_ != kNone) std::fclose(reinterpret_cast<FILE*>(handle_));
}

bool RegularFile::Open(const char* path) {
    HANDLE file = INVALID_HANDLE_VALUE;
    try {
        std::wstring verbatim;
        if (!win32::VerbatimPath(path, verbatim)) return false;
        // Neither a writer nor an installer that renames or deletes is kept from it.
        file = CreateFileW(verbatim.c_str(), GENERIC_READ,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    if (file == INVALID_HANDLE_VALUE) return false;
    if (GetFileType(file) != FILE_TYPE_DISK) {
        CloseHandle(file);
        SetLastError(ERROR_BAD_FILE_TYPE);
        return false;
    }
    const int descriptor =
        _open_osfhandle(reinterpret_cast<intptr_t>(file), _O_RDONLY | _O_BINARY | _O_NOINHERIT);
    if (descriptor < 0) {
        CloseHandle(file);
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        return false;
    }
    FILE* const stream = _fdopen(descriptor, "rb");
    if (stream == nullptr) {
        _close(descriptor);
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        return false;
    }
    handle_ = reinterpret_cast<intptr_t>(stream);
    size_ = _filelengthi64(descriptor);
    return size_ >= 0;
}

int64_t RegularFile::ReadWhole(char* buffer, size_t size) {
    FILE* const file = reinterpret_cast<FILE*>(handle_);
    const size_t read = std::fread(buffer, 1, size + 1, file);
    return std::ferror(file) == 0 ? static_cast<int64_t>(read) : -1;
}

void SetErrorFileTooLarge() {
    SetLastError(ERROR_FILE_TOO_LARGE);
}
void SetErrorFileChanged() {
    SetLastError(ERROR_FILE_INVALID);
}
void SetErrorTooManyFolders() {
    SetLastError(ERROR_CANT_RESOLVE_FILENAME);
}

}  // namespace process
