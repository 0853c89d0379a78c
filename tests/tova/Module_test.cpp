#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Records.h"
#include "Support.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using tova_test::CurrentFolder;
using tova_test::Records;
using tova_test::TempFolder;

namespace {

using Function = int (*)();

Function FunctionOf(void* dso, const char* name) {
    return reinterpret_cast<Function>(TOVA_GetDsoSym(dso, name));
}

std::string FileName(const char* path) {
    return fs::u8path(path).filename().u8string();
}

}  // namespace

TEST(Module, GivesItsSymbols) {
    void* const dso = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(dso, nullptr);
    const Function answer = FunctionOf(dso, "module_answer");
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    const void* const value = TOVA_GetDsoSym(dso, "module_value");
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(*static_cast<const int*>(value), 23);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(Module, ASymbolThatItDoesNotHaveIsNullAndNoMatterForTheLog) {
    void* const dso = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(dso, nullptr);
    Records records;
    EXPECT_EQ(TOVA_GetDsoSym(dso, "module_missing"), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_EQ(TOVA_GetDsoSym(dso, ""), nullptr);
    EXPECT_THAT(records.Take(), IsEmpty());
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(Module, ASymbolOfItsDependencyIsNotItsOwn) {
    void* const dependent = TOVA_LoadDSo(DEPENDENT_MODULE);
    ASSERT_NE(dependent, nullptr);
    const Function lend = FunctionOf(dependent, "module_lend");
    ASSERT_NE(lend, nullptr);
    EXPECT_EQ(lend(), 8);
    EXPECT_EQ(TOVA_GetDsoSym(dependent, "module_borrowed"), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);

    void* const provider = TOVA_LoadDSo(PROVIDER_MODULE);
    ASSERT_NE(provider, nullptr);
    EXPECT_NE(TOVA_GetDsoSym(provider, "module_borrowed"), nullptr);
    EXPECT_EQ(TOVA_GetDsoSym(dependent, "module_borrowed"), nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(provider), 0);
    EXPECT_EQ(TOVA_UnloadDSo(dependent), 0);
}

TEST(Module, ASymbolOfTheProgramOrOfTheSystemIsNotItsOwn) {
    void* const dso = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(TOVA_GetDsoSym(dso, "malloc"), nullptr);
    EXPECT_EQ(TOVA_GetDsoSym(dso, "TOVA_LoadDSo"), nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(Module, IsTheSameForTwoLoadsAndLeavesWithTheLast) {
    void* const first = TOVA_LoadDSo(PLAIN_MODULE);
    void* const second = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(FunctionOf(first, "module_count")(), 1);
    EXPECT_EQ(FunctionOf(second, "module_count")(), 2);
    EXPECT_EQ(TOVA_UnloadDSo(first), 0);
    EXPECT_EQ(FunctionOf(second, "module_count")(), 3);
    EXPECT_EQ(TOVA_UnloadDSo(second), 0);

    void* const again = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(FunctionOf(again, "module_count")(), 1);
    EXPECT_EQ(TOVA_UnloadDSo(again), 0);
}

TEST(Module, ASuccessWritesNoRecord) {
    Records records;
    void* const dso = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
    EXPECT_THAT(records.Take(), IsEmpty());
}

TEST(Module, ARefusalWritesOneRecordOfLevelErrorToTheRuntimesLogger) {
    TempFolder folder;
    const std::string path = folder.Path("missing.module");
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_EQ(taken[0].logger, "tova");
    EXPECT_EQ(taken[0].level, SKRIB_LEVEL_ERROR);
    EXPECT_THAT(taken[0].text, HasSubstr(path));
    EXPECT_THAT(taken[0].file, StartsWith("platform/tova/"));
}

TEST(Module, ARefusalBelowTheThresholdWritesNothing) {
    TempFolder folder;
    Records records;
    ASSERT_EQ(SKRIB_SetThreshold("tova", SKRIB_LEVEL_OFF), 0);
    EXPECT_EQ(TOVA_LoadDSo(folder.Path("missing.module").c_str()), nullptr);
    EXPECT_THAT(records.Take(), IsEmpty());
    ASSERT_EQ(SKRIB_SetThreshold("tova", SKRIB_LEVEL_ERROR), 0);
    EXPECT_EQ(TOVA_LoadDSo(folder.Path("missing.module").c_str()), nullptr);
    EXPECT_THAT(records.Take(), SizeIs(1));
    ASSERT_EQ(SKRIB_SetThreshold("tova", SKRIB_LEVEL_WARNING), 0);
}

TEST(Module, IsNoFolder) {
    TempFolder folder;
    EXPECT_EQ(TOVA_LoadDSo(folder.Path().c_str()), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST(Module, IsNoText) {
    TempFolder folder;
    EXPECT_EQ(TOVA_LoadDSo(folder.Write("empty", "").c_str()), nullptr);
    EXPECT_EQ(TOVA_LoadDSo(folder.Write("text", std::string(5000, 'x')).c_str()), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
}

TEST(Module, WhoseDependencyIsMissingIsRefusedByTheLoadersWords) {
    TempFolder folder;
    const std::string path = folder.CopyOf(DEPENDENT_MODULE, FileName(DEPENDENT_MODULE));
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_EQ(taken[0].level, SKRIB_LEVEL_ERROR);
    EXPECT_THAT(taken[0].text, HasSubstr(path));
}

TEST(Module, FindsADependencyBesideItself) {
    TempFolder folder;
    folder.CopyOf(PROVIDER_MODULE, FileName(PROVIDER_MODULE));
    const std::string path = folder.CopyOf(DEPENDENT_MODULE, FileName(DEPENDENT_MODULE));
    void* const dso = TOVA_LoadDSo(path.c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(FunctionOf(dso, "module_lend")(), 8);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(Module, IsNamedInUtf8) {
    TempFolder folder;
    void* const dso = TOVA_LoadDSo(folder.CopyOf(PLAIN_MODULE, "\xC3\xA4.module").c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(FunctionOf(dso, "module_answer")(), 42);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(Module, WithoutAFolderIsOneInTheCurrentFolder) {
    TempFolder folder;
    folder.CopyOf(PLAIN_MODULE, "bare.module");
    const CurrentFolder current(folder.Path());
    void* const dso = TOVA_LoadDSo("bare.module");
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(FunctionOf(dso, "module_answer")(), 42);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(Module, NullsFail) {
    EXPECT_EQ(TOVA_LoadDSo(nullptr), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    EXPECT_EQ(TOVA_LoadDSo(""), nullptr);
    EXPECT_EQ(TOVA_GetDsoSym(nullptr, "module_answer"), nullptr);
    EXPECT_NE(TOVA_UnloadDSo(nullptr), 0);
    void* const dso = TOVA_LoadDSo(PLAIN_MODULE);
    ASSERT_NE(dso, nullptr);
    EXPECT_EQ(TOVA_GetDsoSym(dso, nullptr), nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}
