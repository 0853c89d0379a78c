// World.h: the folder that a run works in: the library under test, the modules, and the list files.
//
// A list file below the root is a link to one of many that were written before the first run, each
// of which a run uses once: a switch of the link is a rewritten list with another stamp, and no
// listing has to wait for the tick of the file system's clock.
#ifndef VESSA_TESTS_RELIABILITY_SEEDS_WORLD_H
#define VESSA_TESTS_RELIABILITY_SEEDS_WORLD_H

#include <array>
#include <string>

#include "support/TempDir.h"

namespace seeds {

// "stable" is declared all the time; a and b, of one module, in the folder "one"; the others in the
// folder "two": c and d, of one module, c loaded at once, and e, whose module uses other plug-ins.
enum Key { kStable, kA, kB, kC, kD, kE, kKeys };
constexpr const char* kKeyNames[kKeys] = {"stable", "a", "b", "c", "d", "e"};
enum Module { kModuleStable, kModuleAb, kModuleCd, kModuleE, kModules };
constexpr const char* kModuleNames[kModules] = {"stable", "module_ab", "module_cd", "module_e"};
constexpr Module kModuleOf[kKeys] = {kModuleStable, kModuleAb, kModuleAb,
                                     kModuleCd,     kModuleCd, kModuleE};

enum Folder { kOne, kTwo, kFolders };
constexpr unsigned kVariants[kFolders] = {4, 8};  // one bit for each key of the folder
constexpr Key kFirstKey[kFolders] = {kA, kC};
constexpr int kSwitches = 64;  // of a folder's list, in one run

class World {
  public:
    World(const std::string& library, const std::string& module);

    // No list but the stable one.
    void Reset();
    // The folder's list declares these keys from now on; 0 takes the list away.
    void Switch(Folder folder, unsigned variant);
    bool IsDeclared(Key key) const;

    std::string Library() const { return dir_.Path("libvessa.so.2"); }
    std::string ModulePath(Module module) const;

  private:
    std::string ListPath(Folder folder, unsigned variant, int use) const;

    vessa_test::TempDir dir_;
    std::array<unsigned, kFolders> variants_{};
    std::array<int, kFolders> uses_{};
};

}  // namespace seeds

#endif
