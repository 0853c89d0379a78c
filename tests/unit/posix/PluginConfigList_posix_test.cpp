// What stands in a list file's place and is no regular file.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "vessa2/PluginConfigList.h"

namespace {

using vessa_test::LogCapture;
using vessa_test::TempDir;

TEST(PluginConfigList, RefusesWhatIsNoRegularFileWithoutWaitingForIt) {
    TempDir dir;
    const std::string folder = dir.MakeFolder("folder/tarnet.xml");
    const std::string fifo = dir.Path("fifo.xml");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string device = dir.MakeLink("/dev/zero", "device/tarnet.xml");
    const std::string terminal = dir.MakeLink("/dev/null", "null/tarnet.xml");
    const std::string socket_path = dir.Path("s");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socket_path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size());
    const int socket_file = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(socket_file, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (const std::string& path : {folder, fifo, device, terminal, socket_path}) {
        LogCapture log;
        PluginConfigList list;
        EXPECT_FALSE(list.ParseXmlFile(path));
        EXPECT_TRUE(log.Is(
            {"3 param file_path = " + path, "5 ReadTextFile failed {*}/{*}, file path " + path}));
        EXPECT_EQ(log.Count("ReadTextFile failed 0/0"), 0) << path;
    }
    close(socket_file);
}

}  // namespace
