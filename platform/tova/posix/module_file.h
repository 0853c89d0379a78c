#ifndef TOVA_POSIX_MODULE_FILE_H
#define TOVA_POSIX_MODULE_FILE_H

#include <cstdint>
#include <string>

namespace tova {

// Why a file may not be given to the system's loader; error 0: it may.
struct ModuleRefusal {
    int error = 0;
    const char* reason = "";
    // Of the segment that does not fit the file; -1: none.
    int segment = -1;
    uint64_t segment_end = 0;
    uint64_t file_size = 0;
};

/*
 * Examines what the system's loader takes on trust: it maps a segment past the end of the file
 * and dies of SIGBUS at the first touch, and it blocks in the opening of a FIFO. Never blocks.
 * The file's later changes and the modules it depends on are not seen.
 */
ModuleRefusal ExamineModuleFile(const char* path);

// The reason in full. May throw std::bad_alloc.
std::string Describe(const ModuleRefusal& refusal);

}  // namespace tova

#endif
