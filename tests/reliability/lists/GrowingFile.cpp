#include "reliability/lists/GrowingFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>

#include "TestPlatform.h"

namespace vessa_lists {
namespace {

struct Watched {
    std::atomic<bool> active{false};
    std::atomic<bool> happened{true};
    std::string path;
    bool grows = false;
};

Watched& TheWatched() {
    static Watched& watched = *new Watched;
    return watched;
}

bool IsTheSameFile(int file, const std::string& path) {
    struct stat open_one {};
    struct stat named {};
    return fstat(file, &open_one) == 0 && stat(path.c_str(), &named) == 0 &&
           open_one.st_dev == named.st_dev && open_one.st_ino == named.st_ino;
}

void ChangeWatched(int file) {
    Watched& watched = TheWatched();
    if (!watched.active.load() || !IsTheSameFile(file, watched.path)) return;
    struct stat about {};
    fstat(file, &about);
    if (truncate(watched.path.c_str(), about.st_size + (watched.grows ? 40 : -40)) == 0)
        watched.happened.store(true);
    watched.active.store(false);
}

}  // namespace

GrowingFile::GrowingFile(const std::string& path, const std::string& kind) {
    Watched& watched = TheWatched();
    watched.path = path;
    watched.grows = kind == "grows";
    const bool changes = kind == "grows" || kind == "shrinks";
    watched.happened.store(!changes);
    watched.active.store(changes);
}

GrowingFile::~GrowingFile() {
    TheWatched().active.store(false);
}

bool GrowingFile::HasHappened() const {
    return TheWatched().happened.load();
}

}  // namespace vessa_lists

STAND_IN_C(ssize_t, read)(int file, void* buffer, size_t size) {
    static const auto real = vessa_test::FunctionBehind<ssize_t(int, void*, size_t)>("read");
    vessa_lists::ChangeWatched(file);
    return real(file, buffer, size);
}
