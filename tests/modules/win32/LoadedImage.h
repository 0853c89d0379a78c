// LoadedImage.h: a module that the system's loader loaded, nobody else in between.
#ifndef VESSA_TESTS_MODULES_LOADEDIMAGE_H
#define VESSA_TESTS_MODULES_LOADEDIMAGE_H

#include <windows.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <string>

class LoadedImage {
  public:
    // What it needs is looked for beside it and among the system's files.
    explicit LoadedImage(const std::string& path)
        : handle_(
              LoadLibraryExW(std::filesystem::u8path(path).make_preferred().c_str(), nullptr,
                             LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS)) {
        if (handle_ == nullptr) error_ = std::to_string(GetLastError());
    }
    ~LoadedImage() {
        if (handle_ != nullptr) FreeLibrary(handle_);
    }
    LoadedImage(const LoadedImage&) = delete;
    LoadedImage& operator=(const LoadedImage&) = delete;

    bool IsLoaded() const { return handle_ != nullptr; }
    // Why it is not loaded: the system's number.
    const std::string& Error() const { return error_; }

    void* Symbol(const char* name) const {
        const FARPROC found = GetProcAddress(handle_, name);
        void* symbol = nullptr;
        std::memcpy(&symbol, &found, sizeof symbol);
        return symbol;
    }

  private:
    HMODULE handle_;
    std::string error_;
};

// The test modules that only this system has.
inline const std::set<std::string> kModulesOfTheSystem = {"decorated_v1", "decorated_v1_plain_v2",
                                                          "decorated_v2"};

#endif
