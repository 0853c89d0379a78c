// ModuleImage.h: the form of a module's file, and what the runtime says of a wrong one.
#ifndef VESSA_TESTS_UNIT_WIN32_MODULEIMAGE_H
#define VESSA_TESTS_UNIT_WIN32_MODULEIMAGE_H

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "modules/win32/LoadedImage.h"
#include "support/Modules.h"
#include "support/TempDir.h"

namespace vessa_test {

constexpr int kErrorNoModule = ERROR_BAD_EXE_FORMAT;
constexpr int kErrorNoSymbol = ERROR_PROC_NOT_FOUND;

// Whether a module that needs a symbol which nobody has is refused when it is loaded.
inline bool LoaderLooksForSymbols(TempDir& world) {
    const std::string path = Install(world, "undefined_symbol", "asked/undefined_symbol.dll");
    return !LoadedImage(path).IsLoaded();
}

inline IMAGE_NT_HEADERS64 HeadersOf(const std::string& bytes, std::size_t* at) {
    IMAGE_DOS_HEADER first;
    std::memcpy(&first, bytes.data(), sizeof first);
    *at = static_cast<std::size_t>(first.e_lfanew);
    IMAGE_NT_HEADERS64 headers;
    std::memcpy(&headers, bytes.substr(*at, sizeof headers).data(), sizeof headers);
    return headers;
}

inline std::string WithHeaders(std::string bytes, const IMAGE_NT_HEADERS64& headers,
                               std::size_t at) {
    return bytes.replace(at, sizeof headers, reinterpret_cast<const char*>(&headers),
                         sizeof headers);
}

// The same module for a system of 32 bits.
inline std::string OfAnotherClass(const std::string& bytes) {
    std::size_t at = 0;
    IMAGE_NT_HEADERS64 headers = HeadersOf(bytes, &at);
    headers.OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR32_MAGIC;
    return WithHeaders(bytes, headers, at);
}

inline std::string OfAnotherMachine(const std::string& bytes) {
    std::size_t at = 0;
    IMAGE_NT_HEADERS64 headers = HeadersOf(bytes, &at);
    headers.FileHeader.Machine = IMAGE_FILE_MACHINE_POWERPC;
    return WithHeaders(bytes, headers, at);
}

}  // namespace vessa_test

#endif
