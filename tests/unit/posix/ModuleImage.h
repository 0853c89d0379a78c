// ModuleImage.h: the form of a module's file, and what the runtime says of a wrong one.
#ifndef VESSA_TESTS_UNIT_POSIX_MODULEIMAGE_H
#define VESSA_TESTS_UNIT_POSIX_MODULEIMAGE_H

#include <elf.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "support/TempDir.h"

namespace vessa_test {

constexpr int kErrorNoModule = ENOEXEC;
constexpr int kErrorNoSymbol = ENOENT;

// Whether a module that needs a symbol which nobody has is refused when it is loaded.
inline bool LoaderLooksForSymbols(TempDir&) {
    return true;
}

inline std::string WithByte(const std::string& bytes, std::size_t at, char value) {
    std::string changed = bytes;
    changed.at(at) = value;
    return changed;
}

// The same module for a system of 32 bits.
inline std::string OfAnotherClass(const std::string& bytes) {
    return WithByte(bytes, EI_CLASS, ELFCLASS32);
}

inline std::string OfAnotherMachine(const std::string& bytes) {
    return WithByte(bytes, offsetof(Elf64_Ehdr, e_machine), EM_386);
}

}  // namespace vessa_test

#endif
