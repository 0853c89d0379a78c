// CapiWorld.h: a folder as an application is delivered: the built libraries, and the plug-in
// root "tarnet" beside them. Programs run in it as children.
#ifndef VESSA_TESTS_CAPI_CAPIWORLD_H
#define VESSA_TESTS_CAPI_CAPIWORLD_H

#include <string>
#include <utility>
#include <vector>

#include "CapiSystem.h"
#include "TestPlatform.h"
#include "support/Child.h"
#include "support/ListFile.h"
#include "support/Modules.h"
#include "support/TempDir.h"

namespace vessa_test {

// The built files, from the build's definitions.
inline std::string VessaFile() {
    return CAPI_VESSA_FILE;
}
inline std::string TovaFile() {
    return CAPI_TOVA_FILE;
}
inline std::string SkribFile() {
    return CAPI_SKRIB_FILE;
}
// A stand-in for skrib that ends the program if its logger is used after its release.
inline std::string WatchingSkribFile() {
    return CAPI_WATCHING_SKRIB_FILE;
}

class CapiWorld {
  public:
    explicit CapiWorld(const std::string& skrib = SkribFile()) {
        DeliverLibrary(dir, VessaFile(), kVessaName);
        DeliverLibrary(dir, TovaFile(), kTovaName);
        DeliverLibrary(dir, skrib, kSkribName);
        dir.MakeFolder("tarnet");
    }

    // Declares fkey in a list file of its own; the module gets the fkey's name.
    void Add(const std::string& fkey, const std::string& module,
             const ListFile::Attributes& others = {}) {
        Install(dir, module, "tarnet/" + fkey + "/" + fkey + MODULE_SUFFIX);
        dir.Write("tarnet/" + fkey + "/tarnet.xml",
                  ListFile().Plugin(fkey, "./" + fkey + MODULE_SUFFIX, others).Text());
    }
    void AddDelayed(const std::string& fkey, const std::string& module) {
        Add(fkey, module, {{"delayload", "true"}});
    }

    ChildOptions Program(const std::string& program, std::vector<std::string> arguments) {
        ChildOptions options;
        DeliverProgram(dir, program, options);
        options.arguments = std::move(arguments);
        options.environment["SKRIB_LEVEL"] = "off";
        options.environment["SKRIB_FILE"] = std::nullopt;
        options.folder = dir.Path();
        return options;
    }
    ChildResult Run(const std::string& program, std::vector<std::string> arguments) {
        return RunChild(Program(program, std::move(arguments)));
    }

    TempDir dir;
};

}  // namespace vessa_test

#endif
