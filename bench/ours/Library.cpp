#include "ours/Library.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>

#include "common/Lists.h"
#include "skrib.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

void* Load(const std::string& file) {
    void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) throw std::runtime_error(dlerror());
    return library;
}

}  // namespace

// Of the library or of one of the two below it.
void* Library::Symbol(const char* name) const {
    void* const symbol = dlsym(vessa_, name);
    if (symbol == nullptr) throw std::runtime_error(dlerror());
    return symbol;
}

template <class Function>
void Library::Find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(Symbol(name));
}

Library::Library() : Library(WorkFolder()) {}

Library::Library(const std::string& parent) : folder_(parent) {
    folder_.Copy(BENCH_TOVA_FILE, "libtova.so.2");
    folder_.Copy(BENCH_SKRIB_FILE, "libskrib.so.2");
    vessa_ = Load(folder_.Copy(BENCH_VESSA_FILE, "libvessa.so.2"));
    Find(Init, "VESSA_Init");
    Find(Uninit, "VESSA_Uninit");
    Find(CreateInstance, "VESSA_CreateInstance");
    Find(DestroyInstance, "VESSA_DestroyInstance");
    Find(QueryInterface, "VESSA_QueryInterface");
    decltype(&SKRIB_SetThreshold) set_threshold = nullptr;
    Find(set_threshold, "SKRIB_SetThreshold");
    set_threshold(nullptr, SKRIB_LEVEL_OFF);
}

Library::~Library() {
    dlclose(vessa_);
}

std::string Library::MakeRoot() {
    const std::string root = folder_.Path() + "/tarnet";
    fs::create_directories(root);
    return root;
}

void Library::LinkRoot(const std::string& root) {
    fs::remove(folder_.Path() + "/tarnet");
    fs::create_directory_symlink(root, folder_.Path() + "/tarnet");
}

void Library::DeclareOnOneModule(size_t keys) {
    const std::string root = MakeRoot();
    folder_.Copy(BENCH_MODULE_FILE, "tarnet/bench_module.so");
    WriteListsFor(root, keys, "../bench_module.so");
}

StartedLibrary::StartedLibrary(Library& library) : library_(library) {
    if (library_.Init() != VESSA_OK) throw std::runtime_error("the library does not start");
}

}  // namespace bench
