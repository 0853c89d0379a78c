// OpenFiles.h: how many files the process has open, and what is no regular file.
#ifndef VESSA_TESTS_UNIT_POSIX_OPENFILES_H
#define VESSA_TESTS_UNIT_POSIX_OPENFILES_H

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "support/TempDir.h"

namespace vessa_test {

inline int OpenFiles() {
    int open = 0;
    for (int file = 0; file < 256; ++file) {
        if (fcntl(file, F_GETFD) != -1) ++open;
    }
    return open;
}

inline std::vector<std::string> NoRegularFiles(TempDir& dir) {
    const std::string fifo = dir.Path("fifo");
    if (mkfifo(fifo.c_str(), 0600) != 0)
        throw std::system_error(errno, std::generic_category(), fifo);
    return {fifo, dir.MakeFolder("folder"), "/dev/zero"};
}

}  // namespace vessa_test

#endif
