// LifeCycleWorld.h: for white-box programs that start and stop the library through its exports
// in a folder of the test's own. Included by one source file of a program: it defines the
// library's look-up of its own folder.
#ifndef VESSA_TESTS_UNIT_LIFECYCLEWORLD_H
#define VESSA_TESTS_UNIT_LIFECYCLEWORLD_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestPlatform.h"
#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "vessa/vessa.h"
#include "vessa2/LifeCycle.h"
#include "vessa2/ModuleDirectory.h"

namespace vessa_test {

inline std::string& OwnFolder() {
    static std::string& folder = *new std::string;
    return folder;
}

// A folder that the library takes for its own, with an empty plug-in root in it.
class World {
  public:
    World() {
        dir.MakeFolder("tarnet");
        OwnFolder() = dir.Path();
    }

    // Declares fkey in a list file of its own. The module gets the fkey's name.
    void Add(const std::string& fkey, const std::string& module = "good_v2",
             const ListFile::Attributes& others = {}) {
        Install(dir, module, ModuleFile(fkey));
        dir.Write(ListPath(fkey),
                  ListFile().Plugin(fkey, "./" + fkey + MODULE_SUFFIX, others).Text());
    }
    void AddDelayed(const std::string& fkey, const std::string& module = "good_v2") {
        Add(fkey, module, {{"delayload", "true"}});
    }
    void Remove(const std::string& fkey) { dir.Remove(ListPath(fkey)); }

    static std::string ModuleFile(const std::string& fkey) {
        return "tarnet/" + fkey + "/" + fkey + MODULE_SUFFIX;
    }
    static std::string ListPath(const std::string& fkey) {
        return "tarnet/" + fkey + "/tarnet.xml";
    }

    TempDir dir;
};

// The lines that the exports and the life cycle themselves wrote; with the coordinator's Run
// and Shutdown on request.
inline std::vector<std::string> LifeLines(const LogCapture& log, bool with_coordinator = false) {
    std::vector<std::string> lines;
    for (const LogRecord& record : log.Records()) {
        const bool own = record.file == "src/vessa2/LifeCycle.cpp" ||
                         record.file == "src/vessa2/vessa.cpp" ||
                         (with_coordinator && record.file == "src/vessa2/PluginCoordinator.cpp");
        if (own) lines.push_back(record.Line());
    }
    return lines;
}

// Each test begins and ends with a library that is stopped and holds nothing.
class LifeCycleTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(LifeCycle::Get(), nullptr);
        ASSERT_TRUE(LifeCycle::Get()->IsQuiet());
    }
    void TearDown() override { EXPECT_TRUE(LifeCycle::Get()->IsQuiet()); }

    static void* Create(const std::string& fkey) {
        void* instance = nullptr;
        EXPECT_EQ(VESSA_CreateInstance(fkey.c_str(), &instance, nullptr), VESSA_OK) << fkey;
        EXPECT_NE(instance, nullptr) << fkey;
        return instance;
    }
    static void Destroy(void* instance) {
        EXPECT_EQ(VESSA_DestroyInstance(instance, nullptr), VESSA_OK);
    }
};

}  // namespace vessa_test

std::string GetModuleDirectory() {
    return vessa_test::OwnFolder();
}

#endif
