#ifndef TESTS_TOVA_SUPPORT_H
#define TESTS_TOVA_SUPPORT_H

#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "RemoveAll.h"
#include "tova.h"

namespace tova_test {

// A folder of the test's own, empty at first and gone at the end.
class TempFolder {
  public:
    TempFolder() {
        std::random_device random;
        do {
            path_ = std::filesystem::temp_directory_path() /
                    ("tova-test-" + std::to_string(random()) + std::to_string(random()));
        } while (!std::filesystem::create_directory(path_));
    }
    ~TempFolder() { RemoveAll(path_); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string Path() const { return path_.u8string(); }
    std::string Path(const std::string& name) const {
        return (path_ / std::filesystem::u8path(name)).u8string();
    }
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream file(std::filesystem::u8path(Path(name)), std::ios::binary);
        file << content;
        file.close();
        if (!file) throw std::runtime_error("cannot write " + name);
        return Path(name);
    }
    std::string Folder(const std::string& name) const {
        std::filesystem::create_directory(std::filesystem::u8path(Path(name)));
        return Path(name);
    }
    std::string CopyOf(const std::string& file, const std::string& name) const {
        std::filesystem::copy_file(std::filesystem::u8path(file),
                                   std::filesystem::u8path(Path(name)));
        return Path(name);
    }

  private:
    std::filesystem::path path_;
};

// The folder is the current one for a while.
class CurrentFolder {
  public:
    explicit CurrentFolder(const std::string& path) : before_(std::filesystem::current_path()) {
        std::filesystem::current_path(std::filesystem::u8path(path));
    }
    ~CurrentFolder() { std::filesystem::current_path(before_); }
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;

  private:
    const std::filesystem::path before_;
};

inline std::string ReadBytes(const std::string& path) {
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// A semaphore with its life; the value itself is open to the test.
struct Sem {
    explicit Sem(unsigned initial = 0) {
        if (TOVA_SemCreate(&value, initial) != 0) throw std::runtime_error("no semaphore");
    }
    ~Sem() { TOVA_SemDestroy(&value); }
    Sem(const Sem&) = delete;
    Sem& operator=(const Sem&) = delete;

    tova_sem_t value = nullptr;
};

struct Mutex {
    Mutex() {
        if (TOVA_MutexCreate(&value, 0) != 0) throw std::runtime_error("no mutex");
    }
    ~Mutex() { TOVA_MutexDestroy(&value); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    tova_mutex_t value = nullptr;
};

// The whole listing; throws if the folder cannot be opened.
inline std::vector<tova_dirent_t> List(const std::string& folder) {
    void* const dir = TOVA_OpenDir(folder.c_str());
    if (dir == nullptr) throw std::runtime_error("cannot open " + folder);
    std::vector<tova_dirent_t> entries;
    tova_dirent_t entry;
    while (TOVA_FindFileInDir(dir, &entry) == 0) entries.push_back(entry);
    TOVA_CloseDir(dir);
    return entries;
}

inline std::vector<std::string> Names(const std::vector<tova_dirent_t>& entries) {
    std::vector<std::string> names;
    for (const tova_dirent_t& entry : entries) names.emplace_back(entry.name);
    return names;
}

inline tova_dirent_t Find(const std::vector<tova_dirent_t>& entries, const std::string& name) {
    for (const tova_dirent_t& entry : entries) {
        if (name == entry.name) return entry;
    }
    throw std::runtime_error("not listed: " + name);
}

inline tova_dirent_t EntryOf(const TempFolder& folder, const std::string& name) {
    return Find(List(folder.Path()), name);
}

}  // namespace tova_test

#endif
