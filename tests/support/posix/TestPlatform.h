// TestPlatform.h: what tests have to know about the system, under the same names on every one.
// Each system has a folder with a header of this name.
#ifndef VESSA_TESTS_SUPPORT_TESTPLATFORM_H
#define VESSA_TESTS_SUPPORT_TESTPLATFORM_H

#include <cerrno>

// Literals, so that they join others: "good" MODULE_SUFFIX.
#define MODULE_SUFFIX ".so"
#define LIBRARY_PREFIX "lib"
#define PROGRAM_SUFFIX ""

// A function of a shared library, declared by its header, that this program has in its place,
// for itself and for every library it loads (with the option -rdynamic, which the object
// libraries of the support give). FunctionBehind finds the library's own:
//
//     STAND_IN(int, SKRIB_GetThreshold)(void* logger) {
//         static const auto real = vessa_test::FunctionBehind<int(void*)>("SKRIB_GetThreshold");
//         return real(logger);
//     }
#define STAND_IN(result, name)                                           \
  extern "C" __attribute__((visibility("default"))) decltype(name) name; \
  result name

// The same for a function of the C library, for what is linked into this program.
#define STAND_IN_C(result, name)  \
  extern "C" decltype(name) name; \
  result name

// For a function of the program that modules look for in it.
#define PROGRAM_EXPORT __attribute__((visibility("default")))

namespace vessa_test {

// The calling thread's last error, as TOVA_GetSystemLastError gives it.
int LastSystemError();
void SetLastSystemError(int error);

// Last errors by their meaning.
constexpr int kErrorNotFound = ENOENT;
constexpr int kErrorFolderNotFound = ENOENT;  // a folder on the way to the file
constexpr int kErrorAccess = EACCES;
constexpr int kErrorIo = EIO;
constexpr int kErrorInvalid = EINVAL;
constexpr int kErrorNoMemory = ENOMEM;
constexpr int kErrorNoResources = EAGAIN;  // for a thread
constexpr int kErrorTimeout = ETIMEDOUT;
constexpr int kErrorBusy = EBUSY;
constexpr int kErrorBadModule = ELIBBAD;
constexpr int kErrorFileTooLarge = EFBIG;
constexpr int kErrorFileChanged = EBUSY;
constexpr int kErrorTooManyFolders = ELOOP;

// Sets a variable of the environment, or removes it with a null value.
void SetVariable(const char* name, const char* value);

// Whether Wine stands in for the system: a test that it fails by itself is skipped with
// GTEST_SKIP() and what Wine does otherwise.
bool UnderWine();

long ProcessId();
long ThreadId();

// The function of that name that this program's own stands in for. Ends the program if no
// library has one. Leaves the last error alone.
void* SymbolBehind(const char* name);
template <class F>
F* FunctionBehind(const char* name) {
    return reinterpret_cast<F*>(SymbolBehind(name));
}

}  // namespace vessa_test

#endif
