#include "reliability/seeds/World.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "reliability/seeds/Schedule.h"
#include "support/ListFile.h"

namespace seeds {
namespace {

constexpr const char* kFolderNames[kFolders] = {"one", "two"};

std::string LinkName(Folder folder) {
    return std::string("tarnet/") + kFolderNames[folder] + "/tarnet.xml";
}

}  // namespace

World::World(const std::string& library, const std::string& module) {
    dir_.MakeLink(library, "libvessa.so.2");
    for (const char* const name : kModuleNames)
        dir_.CopyFile(module, std::string("modules/") + name + ".so");
    vessa_test::ListFile stable;
    stable.Plugin("stable", ModulePath(kModuleStable), {{"delayload", "true"}});
    dir_.Write("tarnet/stable/tarnet.xml", stable.Text());
    for (const Folder folder : {kOne, kTwo}) {
        dir_.MakeFolder(std::string("tarnet/") + kFolderNames[folder]);
        for (unsigned variant = 1; variant < kVariants[folder]; ++variant) {
            vessa_test::ListFile list;
            for (int bit = 0; variant >> bit != 0; ++bit) {
                if ((variant >> bit & 1) == 0) continue;
                const Key key = static_cast<Key>(kFirstKey[folder] + bit);
                list.Plugin(kKeyNames[key], ModulePath(kModuleOf[key]),
                            {{"delayload", key == kC ? "false" : "true"}});
            }
            for (int use = 0; use < kSwitches; ++use)
                dir_.Write(ListPath(folder, variant, use).substr(dir_.Path().size() + 1),
                           list.Text());
        }
    }
}

std::string World::ModulePath(Module module) const {
    return dir_.Path(std::string("modules/") + kModuleNames[module] + ".so");
}

std::string World::ListPath(Folder folder, unsigned variant, int use) const {
    return dir_.Path("lists/" + std::string(kFolderNames[folder]) + "_" + std::to_string(variant) +
                     "_" + std::to_string(use) + ".xml");
}

void World::Reset() {
    for (const Folder folder : {kOne, kTwo}) {
        unlink(dir_.Path(LinkName(folder)).c_str());
        variants_[folder] = 0;
        uses_[folder] = 0;
    }
}

// By bare calls: nothing here may be a place for the schedule, or order threads.
void World::Switch(Folder folder, unsigned variant) {
    const std::string link = dir_.Path(LinkName(folder));
    const std::string fresh = dir_.Path("fresh");
    int failure = 0;
    if (variant == 0) {
        failure = unlink(link.c_str()) != 0 && errno != ENOENT;
    } else {
        if (uses_[folder] == kSwitches) schedule::Fail("too many switches");
        const std::string target = ListPath(folder, variant, uses_[folder]++);
        failure = symlink(target.c_str(), fresh.c_str()) != 0 ||
                  std::rename(fresh.c_str(), link.c_str()) != 0;
    }
    if (failure != 0) schedule::Fail("the list %s cannot be switched", link.c_str());
    variants_[folder] = variant;
}

bool World::IsDeclared(Key key) const {
    if (key == kStable) return true;
    const Folder folder = key < kFirstKey[kTwo] ? kOne : kTwo;
    return (variants_[folder] >> (key - kFirstKey[folder]) & 1) != 0;
}

}  // namespace seeds
