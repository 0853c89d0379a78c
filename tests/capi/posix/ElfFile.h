// ElfFile.h: what a shared library's file says about itself to the system's loader.
#ifndef VESSA_TESTS_CAPI_ELFFILE_H
#define VESSA_TESTS_CAPI_ELFFILE_H

#include <set>
#include <string>

namespace vessa_test {

struct ElfFile {
    // Throws std::runtime_error if it is no such file.
    explicit ElfFile(const std::string& path);

    std::set<std::string> exported;   // dynamic symbols that the file defines
    std::set<std::string> imported;   // and those that it wants from others
    std::set<std::string> libraries;  // it is linked with
    std::string soname;
    bool has_thread_locals = false;  // a segment of them
    bool has_text_relocations = false;
    bool has_executable_stack = true;
    bool has_unique_symbols = false;  // which keep a library mapped
};

}  // namespace vessa_test

#endif
