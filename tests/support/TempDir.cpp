#include "support/TempDir.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "support/Allocation.h"
#include "support/TempDirSystem.h"

namespace vessa_test {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void ThrowErrno(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

// Paths are UTF-8 on every system.
fs::path ToPath(std::string_view path) {
    return fs::u8path(path);
}

void WriteTo(const std::string& path, std::string_view text) {
    std::ofstream file(ToPath(path), std::ios::binary | std::ios::trunc);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    if (!file) ThrowErrno(path);
}

// A name beside the file that nothing looks for, different for every call.
std::string Beside(const std::string& path) {
    static std::atomic<int> serial{0};
    return path + ".new" + std::to_string(++serial);
}

// Folders that a test made unreadable must not stay behind.
void MakeAccessible(const fs::path& folder) {
    std::error_code ignored;
    fs::permissions(folder, fs::perms::owner_all, fs::perm_options::add, ignored);
    for (fs::directory_iterator entry(folder, ignored), end; entry != end;
         entry.increment(ignored)) {
        if (fs::is_directory(entry->symlink_status(ignored))) MakeAccessible(entry->path());
    }
}

}  // namespace

TempDir::TempDir() : path_(MakeUniqueFolder()) {}

TempDir::~TempDir() {
    AllocationPause pause;
    std::error_code error;
    const fs::path path = ToPath(path_);
    fs::remove_all(path, error);
    if (error) {
        MakeAccessible(path);
        fs::remove_all(path, error);
    }
    if (error) std::fprintf(stderr, "%s stays: %s\n", path_.c_str(), error.message().c_str());
}

std::string TempDir::Path(std::string_view relative) const {
    return path_ + "/" + std::string(relative);
}

std::string TempDir::Prepare(std::string_view relative) const {
    const std::string path = Path(relative);
    fs::create_directories(ToPath(path).parent_path());
    return path;
}

std::string TempDir::Write(std::string_view relative, std::string_view text) {
    const std::string path = Prepare(relative);
    WriteTo(path, text);
    return path;
}

std::string TempDir::WriteByRename(std::string_view relative, std::string_view text) {
    const std::string path = Prepare(relative);
    const std::string beside = Beside(path);
    WriteTo(beside, text);
    fs::rename(ToPath(beside), ToPath(path));
    return path;
}

std::string TempDir::MakeFolder(std::string_view relative) {
    const std::string path = Path(relative);
    fs::create_directories(ToPath(path));
    return path;
}

std::string TempDir::MakeLink(std::string_view target, std::string_view relative) {
    const std::string path = Prepare(relative);
    MakeSymbolicLink(ToPath(target), ToPath(path));
    return path;
}

std::string TempDir::CopyFile(const std::string& from, std::string_view relative) {
    const std::string path = Prepare(relative);
    const std::string beside = Beside(path);
    fs::copy_file(ToPath(from), ToPath(beside));
    fs::rename(ToPath(beside), ToPath(path));
    return path;
}

std::string TempDir::Read(std::string_view relative) const {
    const std::string path = Path(relative);
    std::ifstream file(ToPath(path), std::ios::binary);
    if (!file) ThrowErrno(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool TempDir::Exists(std::string_view relative) const {
    return fs::exists(fs::symlink_status(ToPath(Path(relative))));
}

void TempDir::Remove(std::string_view relative) {
    const std::string path = Path(relative);
    if (fs::remove_all(ToPath(path)) == 0) {
        errno = ENOENT;
        ThrowErrno(path);
    }
}

void TempDir::Rename(std::string_view from, std::string_view to) {
    fs::rename(ToPath(Path(from)), ToPath(Prepare(to)));
}

bool CanMakeLinks() {
    TempDir world;
    try {
        world.MakeLink("nowhere", "link");
    } catch (const std::system_error&) {
        return false;
    }
    return world.Exists("link");
}

}  // namespace vessa_test
