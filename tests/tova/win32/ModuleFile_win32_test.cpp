// What is refused before the system's loader touches it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../Records.h"
#include "../Support.h"
#include "Image.h"
#include "System.h"
#include "support/Child.h"
#include "support/TempDir.h"

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::SizeIs;
using tova_test::CurrentFolder;
using tova_test::Image;
using tova_test::Open;
using tova_test::OpenHandles;
using tova_test::Records;
using tova_test::TempFolder;
using tova_test::Wide;

namespace {

// Loads it, expects a refusal with the error and gives the text of the one record.
std::string Refusal(const std::string& path, int error) {
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), error);
    const auto taken = records.Take();
    EXPECT_THAT(taken, SizeIs(1));
    if (taken.empty()) return "";
    EXPECT_EQ(taken[0].logger, "tova");
    EXPECT_EQ(taken[0].level, SKRIB_LEVEL_ERROR);
    EXPECT_THAT(taken[0].text, HasSubstr("module refused, path " + path + ", reason: "));
    return taken[0].text;
}

// A module with one change, refused for that reason.
template <typename Change>
void ExpectRefusal(const char* reason, Change change) {
    TempFolder folder;
    Image image;
    change(image);
    EXPECT_THAT(Refusal(image.Write(folder, "changed.dll"), ERROR_BAD_EXE_FORMAT),
                HasSubstr(reason));
}

}  // namespace

// Wherever the copying of a module stops, it is refused.
TEST(ModuleFileWin32, CutShortAnywhereIsRefused) {
    TempFolder folder;
    Image whole;
    const uint64_t end = whole.EndOfSections();
    for (uint64_t size = 0; size < end; size += (size < 2048 ? 37 : 997)) {
        Image cut;
        cut.CutTo(size);
        EXPECT_THAT(Refusal(cut.Write(folder, "cut.dll"), ERROR_BAD_EXE_FORMAT),
                    HasSubstr("cut short"))
            << "at " << size;
    }
    Image cut;
    cut.CutTo(end - 1);
    EXPECT_THAT(Refusal(cut.Write(folder, "cut.dll"), ERROR_BAD_EXE_FORMAT),
                HasSubstr("cut short: section " + std::to_string(whole.LastSection()) +
                          " ends at " + std::to_string(end) + " of " + std::to_string(end - 1)));
}

TEST(ModuleFileWin32, ThatLacksOnlyWhatTheLoaderNeverReadsIsLoaded) {
    TempFolder folder;
    Image image;
    image.CutTo(image.EndOfSections());
    void* const dso = TOVA_LoadDSo(image.Write(folder, "cut.dll").c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_NE(TOVA_GetDsoSym(dso, "module_answer"), nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(ModuleFileWin32, OfAnotherMachineOrClassIsRefused) {
    ExpectRefusal("wrong class", [](Image& image) {
        image.Headers().FileHeader.Machine = IMAGE_FILE_MACHINE_I386;
    });
    ExpectRefusal("wrong machine", [](Image& image) {
        image.Headers().FileHeader.Machine = IMAGE_FILE_MACHINE_ARM64;
    });
    ExpectRefusal("wrong machine", [](Image& image) { image.Headers().FileHeader.Machine = 0; });
    ExpectRefusal("wrong class", [](Image& image) {
        image.Headers().OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR32_MAGIC;
    });
}

TEST(ModuleFileWin32, ThatIsAProgramIsRefused) {
    EXPECT_THAT(Refusal(vessa_test::OwnProgram(), ERROR_BAD_EXE_FORMAT),
                HasSubstr("not a library that can be loaded"));
    ExpectRefusal("not a library that can be loaded", [](Image& image) {
        image.Headers().FileHeader.Characteristics &= static_cast<WORD>(~IMAGE_FILE_DLL);
    });
}

TEST(ModuleFileWin32, OfAnotherFormatIsRefused) {
    TempFolder folder;
    EXPECT_THAT(Refusal(folder.Write("empty.dll", ""), ERROR_BAD_EXE_FORMAT),
                HasSubstr("cut short"));
    const std::string elf = std::string(
                                "\x7f"
                                "ELF\x02\x01\x01",
                                7) +
                            std::string(5000, '\0');
    EXPECT_THAT(Refusal(folder.Write("elf.dll", elf), ERROR_BAD_EXE_FORMAT),
                HasSubstr("no MZ header"));
    ExpectRefusal("no PE header", [](Image& image) { image.Headers().Signature = 0x454E; });
}

TEST(ModuleFileWin32, WhoseHeadersLeadOutOfItIsRefused) {
    ExpectRefusal("out of range", [](Image& image) { image.Dos().e_lfanew = -1; });
    ExpectRefusal("cut short", [](Image& image) { image.Dos().e_lfanew = 0x7FFFFFFF; });
    ExpectRefusal("no PE header", [](Image& image) { image.Dos().e_lfanew = 4; });
    ExpectRefusal("no usable table of sections",
                  [](Image& image) { image.Headers().FileHeader.NumberOfSections = 0; });
    ExpectRefusal("no usable table of sections",
                  [](Image& image) { image.Headers().FileHeader.SizeOfOptionalHeader = 16; });
    ExpectRefusal("cut short",
                  [](Image& image) { image.Headers().FileHeader.SizeOfOptionalHeader = 0xFFFF; });
    ExpectRefusal("cut short",
                  [](Image& image) { image.Headers().FileHeader.NumberOfSections = 0xFFFF; });
}

TEST(ModuleFileWin32, WithASectionThatLeavesItIsRefused) {
    for (const DWORD offset : {0x01000000u, 0xFFFFFFFFu, 0xFFFFF000u}) {
        Image whole;
        const std::string index = std::to_string(whole.LastSection());
        ExpectRefusal(("cut short: section " + index + " ends at ").c_str(),
                      [offset, &whole](Image& image) {
                          image.Section(whole.LastSection()).PointerToRawData = offset;
                      });
    }
    ExpectRefusal("cut short: section 0 ends at ",
                  [](Image& image) { image.Section(0).SizeOfRawData = 0xFFFFFFFF; });
}

TEST(ModuleFileWin32, ThatIsAFolderOrADeviceIsRefused) {
    TempFolder folder;
    EXPECT_THAT(Refusal(folder.Path(), ERROR_BAD_EXE_FORMAT), HasSubstr("not a regular file"));
    EXPECT_THAT(Refusal("nul", ERROR_BAD_PATHNAME), HasSubstr("no path of a file"));
    EXPECT_THAT(Refusal("\\\\.\\nul", ERROR_BAD_PATHNAME), HasSubstr("no path of a file"));
}

TEST(ModuleFileWin32, ThatCannotBeOpenedIsRefusedWithTheSystemsReason) {
    TempFolder folder;
    EXPECT_THAT(Refusal(folder.Path("missing.dll"), ERROR_FILE_NOT_FOUND),
                HasSubstr("cannot be opened: "));
    EXPECT_THAT(Refusal(folder.Path("missing/x.dll"), ERROR_PATH_NOT_FOUND),
                HasSubstr("cannot be opened: "));
    const std::string path = folder.CopyOf(PLAIN_MODULE, "alone.dll");
    const Open alone(Wide(path), GENERIC_READ | GENERIC_WRITE, 0);
    EXPECT_THAT(Refusal(path, ERROR_SHARING_VIOLATION), HasSubstr("cannot be opened: "));
}

TEST(ModuleFileWin32, WhoseNameIsNotUtf8IsRefused) {
    TempFolder folder;
    const std::string path = folder.Path() + "\\\xE4.dll";
    EXPECT_THAT(Refusal(path, ERROR_NO_UNICODE_TRANSLATION), HasSubstr("no path of a file"));
}

TEST(ModuleFileWin32, IsNotHeldAfterARefusal) {
    TempFolder folder;
    Image cut;
    cut.CutTo(1000);
    const std::string path = cut.Write(folder, "cut.dll");
    const Records records;
    for (int i = 0; i < 10; ++i) EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    const Open alone(Wide(path), GENERIC_READ | GENERIC_WRITE | DELETE, 0);
}

TEST(ModuleFileWin32, RefusalsLeaveNoHandleOpen) {
    TempFolder folder;
    Image cut;
    cut.CutTo(1000);
    const std::string path = cut.Write(folder, "cut.dll");
    const Records records;
    const size_t before = OpenHandles();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
        EXPECT_EQ(TOVA_LoadDSo(folder.Path().c_str()), nullptr);
        EXPECT_EQ(TOVA_LoadDSo(folder.Path("missing.dll").c_str()), nullptr);
    }
    EXPECT_EQ(OpenHandles(), before);
}

TEST(ModuleFileWin32, BehindALinkIsLoaded) {
    if (!vessa_test::CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    vessa_test::TempDir folder;
    folder.CopyFile(PLAIN_MODULE, "target.dll");
    void* const dso = TOVA_LoadDSo(folder.MakeLink("target.dll", "link.dll").c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_NE(TOVA_GetDsoSym(dso, "module_answer"), nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}
