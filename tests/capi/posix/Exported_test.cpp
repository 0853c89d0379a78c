// What the library's file gives to others and takes from them.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "ElfFile.h"
#include "capi/CapiWorld.h"

namespace vessa_test {
namespace {

bool Contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

TEST(LibraryFile, ExportsTheEightFunctionsAndTheTwoAssignmentsAndNothingElse) {
    const std::set<std::string> expected = {"VESSA_CreateInstance",
                                            "VESSA_DestroyInstance",
                                            "VESSA_Init",
                                            "VESSA_QueryAllFkeys",
                                            "VESSA_QueryConfigAttribute",
                                            "VESSA_QueryInterface",
                                            "VESSA_ReleaseAllFkeys",
                                            "VESSA_Uninit",
                                            "_ZN10TOVA_MutexaSERKS_",
                                            "_ZN9TOVA_SemaaSERKS_"};
    EXPECT_EQ(ElfFile(VessaFile()).exported, expected);
}

TEST(LibraryFile, BearsTheNameThatApplicationsAreLinkedWith) {
    EXPECT_EQ(ElfFile(VessaFile()).soname, "libvessa.so.2");
    EXPECT_EQ(ElfFile(CAPI_CALLS).libraries.count("libvessa.so.2"), 1u);
}

TEST(LibraryFile, CarriesItsXmlParserInside) {
    const ElfFile file(VessaFile());
    for (const std::string& library : file.libraries)
        EXPECT_FALSE(Contains(library, "tinyxml")) << library;
    for (const std::string& symbol : file.imported)
        EXPECT_FALSE(Contains(symbol, "TiXml")) << symbol;
}

TEST(LibraryFile, ReachesTheRuntimeAndTheLogThroughTheirLibraries) {
    const ElfFile file(VessaFile());
    EXPECT_EQ(file.libraries.count("libtova.so.2"), 1u);
    EXPECT_EQ(file.libraries.count("libskrib.so.2"), 1u);
    for (const char* symbol : {"TOVA_MutexLock", "TOVA_SemTimedWait", "TOVA_Thread_Create",
                               "TOVA_AtomicAdd", "TOVA_LoadDSo", "TOVA_OpenDir", "SKRIB_GetLogger",
                               "SKRIB_ReleaseLogger", "SKRIB_GetThreshold", "SKRIB_Write"})
        EXPECT_EQ(file.imported.count(symbol), 1u) << symbol;
    // The application's side of the log is not the library's business.
    EXPECT_EQ(file.imported.count("SKRIB_SetSink"), 0u);
    EXPECT_EQ(file.imported.count("SKRIB_SetThreshold"), 0u);
}

TEST(LibraryFile, HasNoThreadsLocksAndThreadLocalsButTheRuntimes) {
    const ElfFile file(VessaFile());
    EXPECT_FALSE(file.has_thread_locals);
    for (const std::string& symbol : file.imported) {
        for (const char* part :
             {"pthread_mutex", "pthread_cond", "pthread_rwlock", "pthread_create", "pthread_join",
              "pthread_once", "__tls_get_addr", "__emutls", "__cxa_thread_atexit", "St6thread",
              "mutex", "condition_variable", "sem_", "__once_proxy", "mtx_", "thrd_"}) {
            if (symbol.rfind("TOVA_", 0) != 0) {
                EXPECT_FALSE(Contains(symbol, part)) << symbol;
            }
        }
    }
}

TEST(LibraryFile, CanBeUnmappedAndSharedAsItIs) {
    const ElfFile file(VessaFile());
    EXPECT_FALSE(file.has_unique_symbols);
    EXPECT_FALSE(file.has_text_relocations);
    EXPECT_FALSE(file.has_executable_stack);
}

TEST(LibraryFile, ReadsNoEnvironment) {
    const ElfFile file(VessaFile());
    EXPECT_EQ(file.imported.count("getenv"), 0u);
    EXPECT_EQ(file.imported.count("secure_getenv"), 0u);
}

TEST(LibraryFile, IsNotConfusedByAnApplicationsParserOfTheSameNames) {
    CapiWorld world;
    world.Add("a", "good_v2");
    const ElfFile program(CAPI_FOREIGN_TINYXML);
    const ChildResult result = world.Run(CAPI_FOREIGN_TINYXML, {});
    EXPECT_TRUE(result.Exited(0)) << result;
    // The application really offers its own.
    EXPECT_EQ(program.exported.count("_ZN13TiXmlDocumentC1Ev"), 1u);
}

}  // namespace
}  // namespace vessa_test
