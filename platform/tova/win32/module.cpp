#include <cstring>
#include <new>
#include <string>

#include "common.h"
#include "log.h"
#include "module_file.h"
#include "win32/Wide.h"

namespace {

// No box on the screen asks somebody who is not there to find a missing file.
class NoErrorBoxes {
  public:
    NoErrorBoxes() {
        SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &before_);
    }
    ~NoErrorBoxes() { SetThreadErrorMode(before_, nullptr); }
    NoErrorBoxes(const NoErrorBoxes&) = delete;
    NoErrorBoxes& operator=(const NoErrorBoxes&) = delete;

  private:
    DWORD before_ = 0;
};

// The system would add ".dll" to a last name without a full stop; one at the end says there is
// nothing to add.
std::wstring NotToBeExtended(std::wstring path) {
    if (path.find(L'.', path.find_last_of(L'\\')) == std::wstring::npos) path += L'.';
    return path;
}

void* LoadExamined(const char* path, const std::wstring& verbatim) {
    DWORD error = 0;
    {
        const NoErrorBoxes guard;
        // What the module needs is looked for beside it and among the system's own files, never
        // in the current folder or along PATH.
        const HMODULE dso = LoadLibraryExW(
            NotToBeExtended(win32::WithoutPrefix(verbatim)).c_str(), nullptr,
            LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);  // calls out
        if (dso != nullptr) return dso;
        error = GetLastError();
    }
    if (error == 0) error = ERROR_BAD_EXE_FORMAT;
    tova::LogError(__FILE__, TOVA_FUNCTION_SIGNATURE, __LINE__, [path, error] {
        return std::string("module not loaded, path ") + path +
               ", reason: " + win32::ErrorText(error);
    });
    SetLastError(error);
    return nullptr;
}

void* Load(const char* path) {
    std::wstring verbatim;
    tova::ModuleRefusal refusal;
    if (!win32::VerbatimPath(path, verbatim)) {
        refusal.error = GetLastError();
        refusal.reason = "no path of a file";
    } else if (verbatim.back() == L'.' || verbatim.back() == L' ') {
        refusal.error = ERROR_INVALID_NAME;
        refusal.reason = "the system's loader would take a file of another name";
    } else {
        refusal = tova::ExamineModuleFile(verbatim);
        if (refusal.error == 0) return LoadExamined(path, verbatim);
    }
    tova::LogError(__FILE__, TOVA_FUNCTION_SIGNATURE, __LINE__, [path, &refusal] {
        return std::string("module refused, path ") + path + ", reason: " + Describe(refusal);
    });
    SetLastError(refusal.error);
    return nullptr;
}

}  // namespace

void* TOVA_LoadDSo(const char* path) {
    if (path == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    try {
        return Load(path);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
}

void* TOVA_GetDsoSym(void* dso, const char* name) {
    if (dso == nullptr || name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const FARPROC found = GetProcAddress(static_cast<HMODULE>(dso), name);
    if (found == nullptr) return nullptr;
    void* symbol = nullptr;
    std::memcpy(&symbol, &found, sizeof symbol);
    // An export may only pass on to another module's.
    HMODULE definer = nullptr;
    if (GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<LPCWSTR>(symbol), &definer) &&
        definer == dso)
        return symbol;
    SetLastError(ERROR_PROC_NOT_FOUND);
    return nullptr;
}

int TOVA_UnloadDSo(void* dso) {
    if (dso == nullptr) return tova::Fail(ERROR_INVALID_PARAMETER);
    if (FreeLibrary(static_cast<HMODULE>(dso))) return 0;  // calls out
    DWORD error = GetLastError();
    if (error == 0) error = ERROR_INVALID_HANDLE;
    tova::LogError(__FILE__, TOVA_FUNCTION_SIGNATURE, __LINE__,
                   [error] { return "module not unloaded, reason: " + win32::ErrorText(error); });
    return tova::Fail(error);
}
