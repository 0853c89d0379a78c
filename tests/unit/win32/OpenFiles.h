// OpenFiles.h: how many files the process has open, and what is no regular file.
#ifndef VESSA_TESTS_UNIT_WIN32_OPENFILES_H
#define VESSA_TESTS_UNIT_WIN32_OPENFILES_H

#include <io.h>
#include <windows.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace vessa_test {

// Of the C library and of the system: what the one forgets the other still has.
inline int OpenFiles() {
    int open = 0;
    for (int file = 0; file < 256; ++file) {
        if (_get_osfhandle(file) != -1) ++open;
    }
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    return open + static_cast<int>(handles);
}

inline std::vector<std::string> NoRegularFiles(TempDir& dir) {
    return {dir.MakeFolder("folder"), "nul", "NUL", "//./nul", "con"};
}

}  // namespace vessa_test

#endif
