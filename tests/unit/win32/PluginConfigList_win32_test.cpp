// What stands in a list file's place and is no file to be read.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "HeldFile.h"
#include "TestPlatform.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "unit/LoggedCode.h"
#include "vessa2/PluginConfigList.h"

namespace vessa_test {
namespace {

void ExpectUnread(const std::string& path, int error) {
    LogCapture log;
    PluginConfigList list;
    EXPECT_FALSE(list.ParseXmlFile(path));
    EXPECT_TRUE(log.Is({"3 param file_path = " + path,
                        "5 ReadTextFile failed " + Code(error) + ", file path " + path}));
}

TEST(PluginConfigList, RefusesAFolderWithoutWaitingForIt) {
    TempDir dir;
    ExpectUnread(dir.MakeFolder("tarnet.xml"), kErrorAccess);
}

TEST(PluginConfigList, RefusesADeviceAsAFileThatDoesNotExist) {
    for (const char* const path : {"nul", "con", "com1", "//./nul"}) {
        LogCapture log;
        PluginConfigList list;
        EXPECT_FALSE(list.ParseXmlFile(path));
        EXPECT_TRUE(log.Is({std::string("3 param file_path = ") + path,
                            std::string("5 file does not exist, ") + path}));
    }
}

TEST(PluginConfigList, RefusesAFileThatAnotherSharesWithNobody) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "<vessa/>");
    const HeldFile other(path, GENERIC_READ | GENERIC_WRITE, 0);
    ASSERT_TRUE(other.IsHeld());
    ExpectUnread(path, ERROR_SHARING_VIOLATION);
}

}  // namespace
}  // namespace vessa_test
