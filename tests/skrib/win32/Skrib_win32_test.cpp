// What only this system has, or has in another way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <io.h>

#include <cerrno>
#include <set>
#include <string>
#include <thread>

#include "../ProcessTest.h"
#include "../SinkTest.h"
#include "../Support.h"
#include "support/Child.h"
#include "tova/win32/ExportTable.h"

namespace {

using skrib_test::Bytes;
using skrib_test::Child;
using skrib_test::Contents;
using skrib_test::FileSetting;
using skrib_test::Lines;
using skrib_test::Outcome;
using skrib_test::operator+;
using skrib_test::SkribSink;
using skrib_test::TemporaryFolder;
using skrib_test::Wide;
using skrib_test::WithoutTime;
using skrib_test::Words;
using skrib_test::Writing;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;
using tova_test::ExportTable;
using vessa_test::ChildResult;
using vessa_test::IsChild;
using vessa_test::RunChild;
using vessa_test::ThisTestAsChild;

// Letters that no code page has together, and a blank.
constexpr char kFolder[] = "\xE6\x97\xA5\xE6\x9C\xAC \xD0\x96\xC3\xA4";
constexpr char kName[] = "\xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80.log";

FARPROC ByNumber(WORD number) {
    return GetProcAddress(GetModuleHandleW(L"skrib.dll"), MAKEINTRESOURCEA(number));
}

FARPROC ByName(const char* name) {
    return GetProcAddress(GetModuleHandleW(L"skrib.dll"), name);
}

TEST(SkribExports, AreItsSixFunctionsAndNothingElse) {
    const std::set<std::string> expected{"SKRIB_GetLogger",     "SKRIB_GetThreshold",
                                         "SKRIB_ReleaseLogger", "SKRIB_SetSink",
                                         "SKRIB_SetThreshold",  "SKRIB_Write"};
    EXPECT_EQ(ExportTable("skrib.dll").Names(), expected);
    EXPECT_EQ(ExportTable("skrib.dll").Count(), 6u);
    EXPECT_EQ(ExportTable("skrib.dll").LibraryName(), "skrib.dll");
}

TEST(SkribExports, TheFirstFourHaveTheNumbersOneToFour) {
    const char* const names[] = {"SKRIB_GetLogger", "SKRIB_ReleaseLogger", "SKRIB_GetThreshold",
                                 "SKRIB_Write"};
    EXPECT_EQ(ExportTable("skrib.dll").FirstNumber(), 1u);
    for (WORD i = 0; i < 4; ++i) {
        ASSERT_NE(ByName(names[i]), nullptr) << names[i];
        EXPECT_EQ(ByNumber(static_cast<WORD>(i + 1)), ByName(names[i])) << names[i];
    }
}

TEST_F(SkribSink, KeepsTheLastErrorWhateverIsCalled) {
    const Function change = [](const std::string&) { SetLastError(ERROR_CRC); };
    void* logger = nullptr;
    const std::function<void()> calls[] = {
        [&] { logger = SKRIB_GetLogger("last error"); },
        [&] { SKRIB_SetThreshold("last error", SKRIB_LEVEL_DEBUG); },
        [&] { SKRIB_GetThreshold(logger); },
        [&] { SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "to standard error", nullptr, nullptr, 0); },
        [&] { Install(change); },
        [&] { SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "to the receiver", nullptr, nullptr, 0); },
        [&] { SKRIB_SetSink(nullptr, nullptr); },
        [&] { SKRIB_ReleaseLogger(logger); },
        [] { SKRIB_SetThreshold("last error", 99); },
    };
    for (std::size_t i = 0; i < std::size(calls); ++i) {
        SetLastError(ERROR_SEEK);
        errno = EDOM;
        calls[i]();
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SEEK}) << "call " << i;
        EXPECT_EQ(errno, EDOM) << "call " << i;
    }
}

TEST(SkribLines, EndAsTheSystemsLinesDo) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    Child(Writing("one") + Writing("two"), {FileSetting(file)});
    const std::string bytes = Bytes(file);
    EXPECT_THAT(bytes, HasSubstr("[vessa] one\r\n"));
    EXPECT_THAT(bytes, EndsWith("[vessa] two\r\n"));
}

TEST(SkribFileWin32, MayHaveAnyLettersAndBlanks) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(std::filesystem::u8path(folder / kFolder));
    for (const char* separator : {"/", "\\"}) {
        const std::string file = (folder / kFolder) + separator + kName;
        const Outcome outcome = Child(Writing("\xE6\x97\xA5 text"), {FileSetting(file)});
        EXPECT_THAT(WithoutTime(Contents(file)), ElementsAre("warning [vessa] \xE6\x97\xA5 text"));
        EXPECT_EQ(Contents(file), outcome.err);
        std::filesystem::remove(std::filesystem::u8path(file));
    }
}

TEST(SkribFileWin32, IsMeantFromTheFolderOfTheFirstCallWithAnyLetters) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(std::filesystem::u8path(folder / kFolder));
    const Outcome outcome = Child(
        Words{"go-to", folder / kFolder, "get", "vessa", "go-to", folder / "."} + Writing("text"),
        {FileSetting(kName)});
    EXPECT_EQ(Contents((folder / kFolder) + "/" + kName), outcome.err);
}

TEST(SkribFileWin32, IsRenamedWithAnyLetters) {
    const TemporaryFolder folder;
    Words commands;
    for (int i = 0; i < 3; ++i)
        commands = commands + Words{"large", "record " + std::to_string(i), "9437184"};
    const Outcome outcome = Child(commands, {FileSetting(folder / kName)}, skrib_test::kNowhere);
    ASSERT_EQ(outcome.status, 0) << outcome.out;
    const std::string stem = std::string(kName, sizeof kName - 1 - 4);
    for (const auto& [suffix, number] :
         {std::pair{".log", "2"}, {".1.log", "1"}, {".2.log", "0"}}) {
        EXPECT_THAT(Contents(folder / (stem + suffix)).substr(0, 100),
                    HasSubstr(std::string("[large] record ") + number));
    }
}

// It is for one process alone, but whoever reads it need not wait for that process's end.
TEST(SkribFileWin32, CanBeReadWhileItIsWritten) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    const Outcome outcome =
        Child(Writing("one") + Words{"copy", file, folder / "copy.txt"} + Writing("two"),
              {FileSetting(file)});
    ASSERT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_THAT(WithoutTime(Contents(folder / "copy.txt")), ElementsAre("warning [vessa] one"));
}

TEST(SkribFileWin32, ThatAnotherProgramHasForItselfCostsOneReportAndNoRecord) {
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    const HANDLE alone = CreateFileW(Wide(file).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                     FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(alone, INVALID_HANDLE_VALUE);
    const Outcome outcome = Child(Writing("one") + Writing("two"), {FileSetting(file)});
    CloseHandle(alone);
    const Words lines = WithoutTime(outcome.err);
    ASSERT_THAT(lines, SizeIs(3)) << outcome.err;
    EXPECT_EQ(lines[0], "warning [vessa] one");
    EXPECT_THAT(lines[1], HasSubstr("warning [skrib] SKRIB_FILE: "));
    EXPECT_EQ(lines[2], "warning [vessa] two");
}

// As in a program that has no console.
TEST(SkribStandardErrorWin32, MayBeMissing) {
    if (IsChild()) {
        ASSERT_EQ(_close(2), 0);
        void* const logger = SKRIB_GetLogger("vessa");
        SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "one", nullptr, nullptr, 0);
        SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "two", nullptr, nullptr, 0);
        return;
    }
    const TemporaryFolder folder;
    const std::string file = folder / "log.txt";
    vessa_test::ChildOptions options = ThisTestAsChild();
    options.environment["SKRIB_FILE"] = file;
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_THAT(WithoutTime(Contents(file)), ElementsAre("error [vessa] one", "error [vessa] two"));
}

// At the end of the process the thread that was writing is gone, and the lock it held with it.
using AtEnd = void (*)(void (*)(int process_ends));

void WriteAtTheEnd(int process_ends) {
    void* const logger = SKRIB_GetLogger("end");
    SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "at the end", nullptr, nullptr, 0);
    SKRIB_SetThreshold("end", SKRIB_LEVEL_ERROR);
    SKRIB_SetSink(nullptr, nullptr);
    SKRIB_ReleaseLogger(logger);
    DWORD written = 0;
    const char* const text = process_ends != 0 ? "process ended" : "library unloaded";
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, static_cast<DWORD>(strlen(text)), &written,
              nullptr);
}

void EndWhileAThreadWrites() {
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    ASSERT_TRUE(CreatePipe(&read, &write, nullptr, 4096));
    // Nobody reads it, so that a large record blocks.
    ASSERT_EQ(_dup2(_open_osfhandle(reinterpret_cast<intptr_t>(write), 0), 2), 0);
    const HMODULE module = LoadLibraryA(AT_END_MODULE);
    ASSERT_NE(module, nullptr);
    reinterpret_cast<AtEnd>(reinterpret_cast<void*>(GetProcAddress(module, "module_at_end")))(
        &WriteAtTheEnd);
    std::thread([] {
        SKRIB_Write(SKRIB_GetLogger("large"), SKRIB_LEVEL_ERROR, std::string(1 << 20, 'x').c_str(),
                    nullptr, nullptr, 0);
    }).detach();
    for (DWORD filled = 0; filled < 4096; std::this_thread::yield())
        ASSERT_TRUE(PeekNamedPipe(read, nullptr, 0, nullptr, &filled, nullptr));
    ExitProcess(7);
}

TEST(SkribExitWin32, DoesNotWaitForAThreadThatIsGone) {
    if (IsChild()) return EndWhileAThreadWrites();
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(7)) << result;
    EXPECT_THAT(result.out, EndsWith("process ended"));
}

}  // namespace
