// Uses a module after its unload, when another one may be mapped in its place, for the test of the
// library for LD_PRELOAD:  vessa_unloaded_probe <module> <a copy of it> call|read|none
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "vessa/tarnet.h"

namespace {

using Entry = const tarnet_export_table_v2* (*)();

Entry Load(const char* path, void*& handle) {
    handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    return handle != nullptr ? reinterpret_cast<Entry>(dlsym(handle, TARNET_ENTRY_V2)) : nullptr;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 4) return 2;
    void* handle = nullptr;
    const Entry stale = Load(arguments[1], handle);
    if (stale == nullptr) return 2;
    const tarnet_export_table_v2* const table = stale();
    dlclose(handle);
    void* second = nullptr;
    const Entry fresh = Load(arguments[2], second);
    if (fresh == nullptr) return 2;
    std::puts(fresh == stale ? "the same place" : "another place");
    std::fflush(stdout);
    if (std::strcmp(arguments[3], "call") == 0) return stale() == nullptr;
    if (std::strcmp(arguments[3], "read") == 0) return table->Init == nullptr;
    return 0;
}
