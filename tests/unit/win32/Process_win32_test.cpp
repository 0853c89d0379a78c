// What the library asks of the system about itself, where it differs from other systems.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <io.h>
#include <windows.h>

#include <cstdlib>
#include <string>

#include "HeldFile.h"
#include "OpenFiles.h"
#include "process/Process.h"
#include "support/Child.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "support/win32/WideText.h"
#include "unit/OpenedFile.h"

namespace vessa_test {
namespace {

std::string WithSlashes(std::string path) {
    for (char& c : path) {
        if (c == '\\') c = '/';
    }
    return path;
}

TEST(ModuleFile, IsTheProgramForCodeInTheProgram) {
    EXPECT_EQ(WithSlashes(process::ModuleFile()), OwnProgram());
}

TEST(ThreadSlot, IsReadWithoutTouchingTheLastError) {
    int value = 0;
    ASSERT_TRUE(process::ThreadSlotSet(&value));
    SetLastError(1234);
    void* const seen = process::ThreadSlotGet();
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(seen, &value);
    ASSERT_TRUE(process::ThreadSlotSet(nullptr));
    SetLastError(1234);
    EXPECT_EQ(process::ThreadSlotGet(), nullptr);
    EXPECT_EQ(GetLastError(), 1234u);
}

// In a process of its own: the slot is not taken a second time.
TEST(ThreadSlot, IsNullAndRefusesValuesAfterItWasGivenBack) {
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(0)) << result;
        return;
    }
    int value = 0;
    ASSERT_TRUE(process::ThreadSlotSet(&value));
    process::ThreadSlotFree();
    EXPECT_EQ(process::ThreadSlotGet(), nullptr);
    EXPECT_FALSE(process::ThreadSlotSet(&value));
    process::ThreadSlotFree();
}

TEST(ReferenceToItself, IsNullInAProgram) {
    EXPECT_EQ(process::ReferenceSelf(), nullptr);
}

TEST(ProcessId, IsTheSystemsNumber) {
    EXPECT_EQ(process::ProcessId(), static_cast<int32_t>(GetCurrentProcessId()));
}

TEST(OtherThreads, AreThereWhileTheProcessLives) {
    EXPECT_FALSE(process::OtherThreadsAreGone());
}

// A module that is still loaded at the end is told after the system has ended the other threads.
TEST(OtherThreads, AreGoneWhenTheSystemTakesTheLibrariesAway) {
    constexpr int kGone = 7;
    constexpr int kThere = 8;
    if (!IsChild()) {
        const ChildResult result = RunChild(ThisTestAsChild());
        EXPECT_TRUE(result.Exited(kGone)) << result;
        return;
    }
    static TempDir& world = *new TempDir;
    static ModuleHook& hook = *new ModuleHook;
    hook.On("left", "Unload", [](ModuleCall&) {
        const bool gone = process::OtherThreadsAreGone() && !process::BeingUnloaded();
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(gone ? kGone : kThere));
    });
    const std::string path = Install(world, "good_v2", "left.dll");
    ASSERT_NE(LoadLibraryW(WideText(path).c_str()), nullptr);
    std::exit(0);
}

TEST(RegularFile, KeepsNobodyFromWritingRenamingAndDeletingTheFile) {
    TempDir world;
    const std::string path = world.Write("file", "text");
    process::RegularFile file;
    ASSERT_TRUE(file.Open(path.c_str()));
    {
        const HeldFile writer(path, GENERIC_WRITE, kShareAll);
        EXPECT_TRUE(writer.IsHeld()) << GetLastError();
    }
    world.Rename("file", "renamed");
    world.Write("file", "another text");
    EXPECT_TRUE(DeleteFileW(WideText(world.Path("renamed")).c_str())) << GetLastError();
    char bytes[5] = {};
    EXPECT_EQ(file.ReadWhole(bytes, 4), 4);
    EXPECT_STREQ(bytes, "text");
}

TEST(RegularFile, OpensAFileThatAnotherWrites) {
    TempDir world;
    const std::string path = world.Write("file", "text");
    const HeldFile writer(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ);
    ASSERT_TRUE(writer.IsHeld());
    process::RegularFile file;
    EXPECT_TRUE(file.Open(path.c_str())) << GetLastError();
}

TEST(RegularFile, RefusesAFileThatAnotherSharesWithNobody) {
    TempDir world;
    const std::string path = world.Write("file", "text");
    const HeldFile other(path, GENERIC_READ, 0);
    ASSERT_TRUE(other.IsHeld());
    ExpectRefused(path, ERROR_SHARING_VIOLATION);
}

TEST(RegularFile, RefusesFoldersAndDevicesWithoutBlocking) {
    TempDir world;
    ExpectRefused(world.MakeFolder("folder"), kErrorAccess);
    ExpectRefused(world.Path("missing"), kErrorNotFound);
    ExpectRefused(world.Path("missing/file"), kErrorFolderNotFound);
    ExpectRefused("", 0);
    for (const char* const device : {"nul", "NUL", "con", "aux", "com1", "//./nul"})
        ExpectRefused(device, 0);
    ExpectRefused("\xFF", 0);
}

TEST(RegularFile, RefusesAPipeThatSomebodyServes) {
    const std::string name = "pipe\\vessa-test-" + std::to_string(GetCurrentProcessId());
    const HANDLE server = CreateNamedPipeW(WideText("\\\\.\\" + name).c_str(), PIPE_ACCESS_DUPLEX,
                                           PIPE_TYPE_BYTE | PIPE_WAIT, 1, 4096, 4096, 0, nullptr);
    ASSERT_NE(server, INVALID_HANDLE_VALUE);
    ExpectRefused("\\\\.\\" + name, 0);
    ExpectRefused("\\\\?\\" + name, 0);
    CloseHandle(server);
}

TEST(RegularFile, KeepsNoHandleOfARefusedFileAndItsOwnFromChildren) {
    TempDir world;
    const std::string path = world.Write("file", "text");
    const std::string folder = world.MakeFolder("folder");
    process::RegularFile file;
    ASSERT_TRUE(file.Open(path.c_str()));
    DWORD flags = 0;
    const auto handle =
        reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(reinterpret_cast<FILE*>(file.handle()))));
    ASSERT_TRUE(GetHandleInformation(handle, &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    const int before = OpenFiles();
    for (int i = 0; i < 10; ++i) {
        ExpectRefused(folder, 0);
        ExpectRefused("nul", 0);
    }
    EXPECT_EQ(OpenFiles(), before);
}

TEST(RegularFile, ReadsEveryByteAsItIs) {
    TempDir world;
    const std::string bytes("a\r\nb\x1A\0c", 7);
    const std::string path = world.Write("file", bytes);
    process::RegularFile file;
    ASSERT_TRUE(file.Open(path.c_str()));
    std::string read(bytes.size() + 1, 'x');
    EXPECT_EQ(file.ReadWhole(read.data(), bytes.size()), static_cast<int64_t>(bytes.size()));
    EXPECT_EQ(read.substr(0, bytes.size()), bytes);
}

TEST(RegularFile, FindsAFileByLettersOutsideTheCodePage) {
    TempDir world;
    const std::string path = world.Write("\xC3\xA4/\xE6\xBC\xA2/\xF0\x9F\x98\x80.xml", "text");
    process::RegularFile file;
    ASSERT_TRUE(file.Open(path.c_str())) << GetLastError();
    char bytes[5] = {};
    EXPECT_EQ(file.ReadWhole(bytes, 4), 4);
    EXPECT_STREQ(bytes, "text");
}

}  // namespace
}  // namespace vessa_test
