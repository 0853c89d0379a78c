// LoadedLibrary.h: the built shared library in a folder of its own, as it is delivered, loaded by
// path into a program that stands in for its runtime and its allocations. Linux only.
#ifndef VESSA_TESTS_RELIABILITY_LOADEDLIBRARY_H
#define VESSA_TESTS_RELIABILITY_LOADEDLIBRARY_H

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "support/TempDir.h"
#include "vessa/vessa.h"

namespace vessa_test {

// The plug-in root is the folder "tarnet" in folder(). Unloaded by the destructor: whoever started
// the library has to have stopped it.
class LoadedLibrary {
  public:
    // file: the built library.
    explicit LoadedLibrary(const std::string& file) {
        folder_.MakeLink(file, "libvessa.so.2");
        folder_.MakeFolder("tarnet");
        handle_ = dlopen(folder_.Path("libvessa.so.2").c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr) throw std::runtime_error(dlerror());
        Find("VESSA_Init", Init);
        Find("VESSA_Uninit", Uninit);
        Find("VESSA_CreateInstance", CreateInstance);
        Find("VESSA_DestroyInstance", DestroyInstance);
        Find("VESSA_QueryInterface", QueryInterface);
        Find("VESSA_QueryConfigAttribute", QueryConfigAttribute);
        Find("VESSA_QueryAllFkeys", QueryAllFkeys);
        Find("VESSA_ReleaseAllFkeys", ReleaseAllFkeys);
    }
    ~LoadedLibrary() {
        if (handle_ != nullptr) dlclose(handle_);
    }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    // For a library with something that it has to keep: it is not unloaded.
    void Keep() { handle_ = nullptr; }

    TempDir& folder() { return folder_; }

    decltype(&VESSA_Init) Init = nullptr;
    decltype(&VESSA_Uninit) Uninit = nullptr;
    decltype(&VESSA_CreateInstance) CreateInstance = nullptr;
    decltype(&VESSA_DestroyInstance) DestroyInstance = nullptr;
    decltype(&VESSA_QueryInterface) QueryInterface = nullptr;
    decltype(&VESSA_QueryConfigAttribute) QueryConfigAttribute = nullptr;
    decltype(&VESSA_QueryAllFkeys) QueryAllFkeys = nullptr;
    decltype(&VESSA_ReleaseAllFkeys) ReleaseAllFkeys = nullptr;

  private:
    template <class F>
    void Find(const char* name, F& function) {
        function = reinterpret_cast<F>(dlsym(handle_, name));
        if (function == nullptr) throw std::runtime_error(dlerror());
    }

    TempDir folder_;
    void* handle_ = nullptr;
};

}  // namespace vessa_test

#endif
