#include "TestPlatform.h"

#include <stdlib.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "support/win32/WideText.h"

namespace vessa_test {
namespace {

// The libraries that a program may stand in for, the last one for the C library.
constexpr const wchar_t* kLibraries[] = {L"tova.dll", L"skrib.dll", L"msvcrt.dll"};

void* Find(const char* name) {
    for (const wchar_t* const library : kLibraries) {
        // Loaded here if everything that the program needs of it is stood in for. It stays.
        const HMODULE module = LoadLibraryW(library);
        if (module == nullptr) continue;
        if (const FARPROC found = GetProcAddress(module, name)) {
            void* symbol = nullptr;
            std::memcpy(&symbol, &found, sizeof symbol);
            return symbol;
        }
    }
    return nullptr;
}

}  // namespace

int LastSystemError() {
    return static_cast<int>(GetLastError());
}

void SetLastSystemError(int error) {
    SetLastError(static_cast<DWORD>(error));
}

void SetVariable(const char* name, const char* value) {
    // The C library has a copy of its own, which this call changes too, but knows no UTF-8.
    _putenv_s(name, value == nullptr ? "" : value);
    const bool removed = value == nullptr || *value == '\0';
    SetEnvironmentVariableW(WideText(name).c_str(), removed ? nullptr : WideText(value).c_str());
}

bool UnderWine() {
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

long ProcessId() {
    return static_cast<long>(GetCurrentProcessId());
}

long ThreadId() {
    return static_cast<long>(GetCurrentThreadId());
}

void* SymbolBehind(const char* name) {
    const DWORD error_before = GetLastError();
    void* const symbol = Find(name);
    SetLastError(error_before);
    if (symbol != nullptr) return symbol;
    std::fprintf(stderr, "no %s behind the stand-in\n", name);
    std::abort();
}

}  // namespace vessa_test
