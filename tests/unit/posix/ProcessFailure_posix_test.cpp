// What the library asks of the system about itself, when the system refuses or answers oddly.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <deque>
#include <string>

#include "TestPlatform.h"
#include "process/Process.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "tova.h"
#include "vessa2/PluginConfigList.h"

namespace {

constexpr char kNoWorkingFolder[] = "TEST_NO_WORKING_FOLDER";

// What the stand-ins do instead, once or as long as it is set.
bool own_file_is_unknown = false;
const char* const* own_file = nullptr;
bool keys_fail = false;
bool slots_fail = false;
bool examining_fails = false;
std::deque<int> read_errors;
std::deque<int> fence_results;  // of registering and of fencing, as they come

}  // namespace

STAND_IN_C(int, dladdr)(const void* address, Dl_info* info) noexcept {
    static const auto real = vessa_test::FunctionBehind<int(const void*, Dl_info*)>("dladdr");
    if (own_file_is_unknown) return 0;
    const int result = real(address, info);
    if (own_file != nullptr) info->dli_fname = *own_file;
    return result;
}

// The library asks before the program's main begins. So does the test framework, which cannot do
// without an answer, with a buffer of another size.
STAND_IN_C(char*, getcwd)(char* buffer, size_t size) noexcept {
    static const auto real = vessa_test::FunctionBehind<char*(char*, size_t)>("getcwd");
    if (size != PATH_MAX || std::getenv(kNoWorkingFolder) == nullptr) return real(buffer, size);
    errno = ENOENT;
    return nullptr;
}

STAND_IN_C(int, pthread_key_create)(pthread_key_t* key, void (*end)(void*)) noexcept {
    static const auto real =
        vessa_test::FunctionBehind<int(pthread_key_t*, void (*)(void*))>("pthread_key_create");
    return keys_fail ? EAGAIN : real(key, end);
}

STAND_IN_C(int, pthread_setspecific)(pthread_key_t key, const void* value) noexcept {
    static const auto real =
        vessa_test::FunctionBehind<int(pthread_key_t, const void*)>("pthread_setspecific");
    return slots_fail ? ENOMEM : real(key, value);
}

STAND_IN_C(int, fstat)(int file, struct stat* about) noexcept {
    static const auto real = vessa_test::FunctionBehind<int(int, struct stat*)>("fstat");
    if (!examining_fails) return real(file, about);
    errno = EIO;
    return -1;
}

STAND_IN_C(ssize_t, read)(int file, void* buffer, size_t size) {
    static const auto real = vessa_test::FunctionBehind<ssize_t(int, void*, size_t)>("read");
    if (read_errors.empty()) return real(file, buffer, size);
    errno = read_errors.front();
    read_errors.pop_front();
    return -1;
}

// Two arguments are all that the library and these tests give.
STAND_IN_C(long, syscall)(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    const long first = va_arg(list, long);
    const long second = va_arg(list, long);
    va_end(list);
    if (number == SYS_membarrier && !fence_results.empty()) {
        const int result = fence_results.front();
        fence_results.pop_front();
        return result;
    }
    static const auto real = vessa_test::FunctionBehind<long(long, ...)>("syscall");
    return real(number, first, second);
}

namespace vessa_test {
namespace {

// What the library takes for its own file when the system names it so.
std::string ModuleFileNamed(const char* name) {
    own_file = &name;
    const std::string file = process::ModuleFile();
    own_file = nullptr;
    return file;
}

TEST(OwnFile, IsUnknownWithoutAnAnswerOfTheSystem) {
    own_file_is_unknown = true;
    const std::string file = process::ModuleFile();
    void* const reference = process::ReferenceSelf();
    own_file_is_unknown = false;
    EXPECT_EQ(file, "");
    EXPECT_EQ(reference, nullptr);
}

TEST(OwnFile, IsUnknownWithoutAName) {
    EXPECT_EQ(ModuleFileNamed(nullptr), "");
    EXPECT_EQ(ModuleFileNamed(""), "");
    const char* const none = nullptr;
    own_file = &none;
    void* const reference = process::ReferenceSelf();
    own_file = nullptr;
    EXPECT_EQ(reference, nullptr);
}

TEST(OwnFile, IsUnknownByARelativeNameFromAFolderThatWasUnknownAtTheStart) {
    if (IsChild()) {
        EXPECT_EQ(ModuleFileNamed("./program"), "");
        EXPECT_EQ(ModuleFileNamed("/absolute"), "/absolute");
        return;
    }
    ChildOptions options = ThisTestAsChild();
    options.environment[kNoWorkingFolder] = "1";
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_NE(ModuleFileNamed("./program"), "");
}

TEST(ThreadSlot, IsNullWhereTheSystemHasNoneLeft) {
    if (IsChild()) {
        keys_fail = true;
        int value = 0;
        EXPECT_FALSE(process::ThreadSlotSet(&value));
        EXPECT_EQ(process::ThreadSlotGet(), nullptr);
        // There is nothing to be given back.
        process::ThreadSlotFree();
        EXPECT_EQ(process::ThreadSlotGet(), nullptr);
        return;
    }
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(0)) << result;
}

TEST(ThreadSlot, IsNotSetWhereTheSystemHasNoMemoryForIt) {
    int value = 0;
    slots_fail = true;
    const bool is_set = process::ThreadSlotSet(&value);
    slots_fail = false;
    EXPECT_FALSE(is_set);
    EXPECT_EQ(process::ThreadSlotGet(), nullptr);
}

TEST(FenceOnAllThreads, IsRegisteredAgainWhereTheSystemHasForgottenIt) {
    fence_results = {-1, 0, 0};
    EXPECT_TRUE(process::FenceAllThreads());
    EXPECT_TRUE(fence_results.empty());
}

TEST(FenceOnAllThreads, FailsWhereItFailsOnceMore) {
    fence_results = {-1, 0, -1};
    EXPECT_FALSE(process::FenceAllThreads());
    fence_results = {-1, -1};
    EXPECT_FALSE(process::FenceAllThreads());
    EXPECT_TRUE(fence_results.empty());
}

TEST(RegularFile, IsNotOpenedWhenItCannotBeExamined) {
    TempDir world;
    const std::string path = world.Write("file", "text");
    process::RegularFile file;
    examining_fails = true;
    const bool is_open = file.Open(path.c_str());
    const int error = TOVA_GetSystemLastError();
    examining_fails = false;
    EXPECT_FALSE(is_open);
    EXPECT_EQ(error, EIO);
}

TEST(RegularFile, IsReadOnAfterASignal) {
    TempDir world;
    process::RegularFile file;
    ASSERT_TRUE(file.Open(world.Write("file", "text").c_str()));
    read_errors = {EINTR, EINTR};
    char bytes[5] = {};
    EXPECT_EQ(file.ReadWhole(bytes, 4), 4);
    EXPECT_STREQ(bytes, "text");
    EXPECT_TRUE(read_errors.empty());
}

TEST(RegularFile, GivesNoBytesWhenAReadFails) {
    TempDir world;
    const std::string path = world.Write("file", "text");
    process::RegularFile file;
    ASSERT_TRUE(file.Open(path.c_str()));
    read_errors = {EIO};
    char bytes[5] = {};
    EXPECT_EQ(file.ReadWhole(bytes, 4), -1);
    EXPECT_EQ(TOVA_GetSystemLastError(), EIO);

    read_errors = {EIO};
    std::string text = "before";
    EXPECT_FALSE(ReadTextFile(path, text, 100));
    EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace vessa_test
