// Files.h: the world on disk: list files and modules below the plug-in root, each put in place by
// rename, and what the program knows of each module that it made.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_FILES_H
#define VESSA_TESTS_RELIABILITY_RANDOM_FILES_H

#include <cstdint>
#include <string>
#include <vector>

#include "reliability/LoadedLibrary.h"

namespace vessa_random {

enum class ModuleKind : char {
    kGood = 'g',
    kInitFails = 'i',
    kInitThrows = 't',
    kUninitFails = 'u',
    kEntryNull = 'n',
    kSlotMissing = 's',
    kGarbage = 'x',
    kCut = 'c',
    kMissing = '-'
};

// What stands at a path.
struct ModuleFile {
    ModuleKind kind = ModuleKind::kMissing;
    uint64_t serial = 0;
    std::vector<std::string> keys;  // that it announces

    bool Loads() const { return kind == ModuleKind::kGood || kind == ModuleKind::kUninitFails; }
    // What the first use of the file gives, if nothing else fails.
    int LoadResult() const;
};

struct Item {
    std::string key;
    std::string path;  // of the module, absolute
    std::string list;  // of the list file, absolute
    std::string note;
    bool delayed = true;
    bool announces = false;
};

class Files {
  public:
    explicit Files(vessa_test::LoadedLibrary& library);

    vessa_test::LoadedLibrary& library() { return library_; }
    std::string Root() const { return root_; }

    // Below the root; absolute.
    std::string Path(const std::string& relative) const { return root_ + "/" + relative; }

    // Every module has a number of its own, which says whose it is. One that announces keys is of
    // version 2; of the others every second one is of version 1.
    static ModuleFile MakeModule(int owner, ModuleKind kind,
                                 const std::vector<std::string>& keys = {});
    static int OwnerOf(uint64_t serial) { return static_cast<int>(serial >> 48); }
    void PutModule(const std::string& path, const ModuleFile& file);
    void PutList(const std::string& path, const std::vector<Item>& items);
    // No list: cut in an element.
    void PutBroken(const std::string& path);
    void Remove(const std::string& path);

  private:
    void PutText(const std::string& path, const std::string& text);

    vessa_test::LoadedLibrary& library_;
    std::string root_;
};

// Modules that are loaded, as they say themselves.
struct LoadedModule {
    uint64_t serial;
    int64_t live;
};

// The program's side of the modules: see ModuleSide.h.
class Modules {
  public:
    static void Announce(uint64_t serial, const std::vector<std::string>& keys);
    static bool IsLoaded(uint64_t serial);
    static std::vector<LoadedModule> Loaded();
    // Frees the blocks of instances that died. Their addresses come again only after this.
    static void FreeDead();
};

}  // namespace vessa_random

#endif
