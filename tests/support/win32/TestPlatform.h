// TestPlatform.h: what tests have to know about the system, under the same names on every one.
// Each system has a folder with a header of this name.
#ifndef VESSA_TESTS_SUPPORT_TESTPLATFORM_H
#define VESSA_TESTS_SUPPORT_TESTPLATFORM_H

// Literals, so that they join others: "good" MODULE_SUFFIX.
#define MODULE_SUFFIX ".dll"
#define LIBRARY_PREFIX ""
#define PROGRAM_SUFFIX ".exe"

// A function of a shared library, declared by its header, that this program has in its place,
// for what is linked into the program: code that knows the header calls through the pointer that
// the import library would define. FunctionBehind finds the library's own:
//
//     STAND_IN(int, SKRIB_GetThreshold)(void* logger) {
//         static const auto real = vessa_test::FunctionBehind<int(void*)>("SKRIB_GetThreshold");
//         return real(logger);
//     }
#define STAND_IN(result, name)                                    \
  extern "C" decltype(name) StandInFor_##name;                    \
  extern "C" decltype(&StandInFor_##name) __imp_##name;           \
  decltype(&StandInFor_##name) __imp_##name = &StandInFor_##name; \
  result StandInFor_##name

// The same for a function of the C library, which is also called by its plain name.
#define STAND_IN_C(result, name)           \
  extern "C" decltype(name) name;          \
  extern "C" decltype(&name) __imp_##name; \
  decltype(&name) __imp_##name = &name;    \
  result name

// For a function of the program that modules look for in it.
#define PROGRAM_EXPORT __declspec(dllexport)

namespace vessa_test {

// The calling thread's last error, as TOVA_GetSystemLastError gives it.
int LastSystemError();
void SetLastSystemError(int error);

// Last errors by their meaning, with the system's numbers.
constexpr int kErrorNotFound = 2;
constexpr int kErrorFolderNotFound = 3;  // a folder on the way to the file
constexpr int kErrorAccess = 5;
constexpr int kErrorIo = 1117;
constexpr int kErrorInvalid = 87;
constexpr int kErrorNoMemory = 8;
constexpr int kErrorNoResources = 1450;  // for a thread
constexpr int kErrorTimeout = 258;
constexpr int kErrorBusy = 170;
constexpr int kErrorBadModule = 193;
constexpr int kErrorFileTooLarge = 223;
constexpr int kErrorFileChanged = 1006;
constexpr int kErrorTooManyFolders = 1921;

// Sets a variable of the environment, or removes it with a null value; an empty value removes
// it as well. Every library of the process sees it, by getenv too.
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
