// FileTimes.h: a file's times as a user can set them.
#ifndef VESSA_TESTS_UNIT_POSIX_FILETIMES_H
#define VESSA_TESTS_UNIT_POSIX_FILETIMES_H

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace vessa_test {

struct FileTimes {
    timespec accessed;
    timespec written;
};

inline FileTimes TimesOf(const std::string& path) {
    struct stat about {};
    if (stat(path.c_str(), &about) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    return {about.st_atim, about.st_mtim};
}

inline void SetTimes(const std::string& path, const FileTimes& as) {
    const timespec times[2] = {as.accessed, as.written};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
        throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace vessa_test

#endif
