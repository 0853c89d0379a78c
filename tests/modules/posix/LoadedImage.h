// LoadedImage.h: a module that the system's loader loaded, nobody else in between.
#ifndef VESSA_TESTS_MODULES_LOADEDIMAGE_H
#define VESSA_TESTS_MODULES_LOADEDIMAGE_H

#include <dlfcn.h>

#include <filesystem>
#include <set>
#include <string>

class LoadedImage {
  public:
    explicit LoadedImage(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW)) {
        if (handle_ == nullptr) error_ = dlerror();
    }
    ~LoadedImage() {
        if (handle_ != nullptr) dlclose(handle_);
    }
    LoadedImage(const LoadedImage&) = delete;
    LoadedImage& operator=(const LoadedImage&) = delete;

    bool IsLoaded() const { return handle_ != nullptr; }
    // Why it is not loaded, in the system's words.
    const std::string& Error() const { return error_; }

    void* Symbol(const char* name) const { return dlsym(handle_, name); }
    // The file that defines the symbol, without its folder.
    std::string Definer(const char* name) const {
        Dl_info info{};
        void* const symbol = Symbol(name);
        if (symbol == nullptr || dladdr(symbol, &info) == 0) return {};
        return std::filesystem::path(info.dli_fname).filename().string();
    }

  private:
    void* handle_;
    std::string error_;
};

// The test modules that only this system has.
inline const std::set<std::string> kModulesOfTheSystem = {};

#endif
