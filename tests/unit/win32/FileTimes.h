// FileTimes.h: a file's times as a user can set them.
#ifndef VESSA_TESTS_UNIT_WIN32_FILETIMES_H
#define VESSA_TESTS_UNIT_WIN32_FILETIMES_H

#include <windows.h>

#include <string>

#include "HeldFile.h"

namespace vessa_test {

struct FileTimes {
    FILETIME created;
    FILETIME accessed;
    FILETIME written;
};

inline FileTimes TimesOf(const std::string& path) {
    const HeldFile file(path, FILE_READ_ATTRIBUTES, kShareAll);
    FileTimes times{};
    if (!GetFileTime(file.Get(), &times.created, &times.accessed, &times.written))
        ThrowLastError(path);
    return times;
}

inline void SetTimes(const std::string& path, const FileTimes& as) {
    const HeldFile file(path, FILE_WRITE_ATTRIBUTES, kShareAll);
    if (!SetFileTime(file.Get(), &as.created, &as.accessed, &as.written)) ThrowLastError(path);
}

}  // namespace vessa_test

#endif
