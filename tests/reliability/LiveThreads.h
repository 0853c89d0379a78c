// LiveThreads.h: how many threads this process has, without those that are on their way out.
#ifndef VESSA_TESTS_RELIABILITY_LIVETHREADS_H
#define VESSA_TESTS_RELIABILITY_LIVETHREADS_H

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace vessa_test {

// Whether the system has marked the thread as ending. It has, before a join of the thread returns,
// and lists it for a moment longer. One that is not listed any more has ended as well.
inline bool IsEnding(const char* thread) {
    constexpr unsigned kExiting = 4;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%.20s/stat", thread);
    char text[512];
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return true;
    const ssize_t size = read(file, text, sizeof text - 1);
    close(file);
    if (size <= 0) return true;
    text[size] = '\0';
    // "7 (name) S 1 1 1 0 -1 flags ...": the name may contain anything.
    const char* const rest = std::strrchr(text, ')');
    unsigned flags = 0;
    return rest != nullptr && std::sscanf(rest, ") %*c %*d %*d %*d %*d %*d %u", &flags) == 1 &&
           (flags & kExiting) != 0;
}

// Counts without anything that stays behind.
inline int CountLiveThreads() {
    DIR* const directory = opendir("/proc/self/task");
    if (directory == nullptr) return -1;
    int threads = 0;
    while (const dirent* const entry = readdir(directory)) {
        if (entry->d_name[0] != '.' && !IsEnding(entry->d_name)) ++threads;
    }
    closedir(directory);
    return threads;
}

}  // namespace vessa_test

#endif
