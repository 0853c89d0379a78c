#ifndef TOVA_WIN32_MODULE_FILE_H
#define TOVA_WIN32_MODULE_FILE_H

#include <cstdint>
#include <string>

namespace tova {

// Why a file may not be given to the system's loader; error 0: it may.
struct ModuleRefusal {
    unsigned long error = 0;
    const char* reason = "";
    // Of the section that does not fit the file; -1: none.
    int section = -1;
    uint64_t section_end = 0;
    uint64_t file_size = 0;
};

/*
 * Examines the file by its verbatim path and refuses what is no 64-bit module of this machine or
 * ends before its own tables and sections do. Never blocks, and keeps nobody from the file. The
 * file's later changes and the modules it depends on are not seen.
 */
ModuleRefusal ExamineModuleFile(const std::wstring& path);

// The reason in full. May throw std::bad_alloc.
std::string Describe(const ModuleRefusal& refusal);

}  // namespace tova

#endif
