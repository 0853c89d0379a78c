// ModuleHook.h: a test's hand inside the test modules. A program that links the object library
// vessa_test_module_hook is told by every test module of every operation, before the operation
// does anything; while a ModuleHook lives it keeps a journal of them and lets the test act in
// the module's place: return another result, call the library, wait, or throw.
#ifndef VESSA_TESTS_SUPPORT_MODULEHOOK_H
#define VESSA_TESTS_SUPPORT_MODULEHOOK_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vessa_test {

// One operation of one module. What an operation does not have is null.
struct ModuleCall {
    std::string module;     // the file name that it was loaded from, without its suffix
    std::string operation;  // "Load", "Unload", "Entry" or the name of the slot
    int index = 0;          // which call of this operation of this module, from 1 on

    void* instance = nullptr;      // of DestroyInstance and QueryInterface
    const char* key = nullptr;     // the fkey of CreateInstance_V2, the ikey of QueryInterface
    void** out = nullptr;          // where create and query store
    char (*fkeys)[256] = nullptr;  // of GetPluginMapFkeys, null in its first call
    int* count = nullptr;          // of GetPluginMapFkeys

    // The operation does nothing more and returns this; one that returns a pointer ("Entry",
    // GetAllInterfaceIkeys, GetFileVersion) returns null. Without it the module goes on in
    // its own way.
    void Return(int module_result) {
        replaced = true;
        result = module_result;
    }

    bool replaced = false;
    int result = 0;
};

// One at a time in a process; not destroyed before every handler has returned. Handlers may
// use only what outlives it: declare it after gates and other things that they refer to.
//
// The journal is kept under a mutex, which also orders the threads that enter modules: a test
// that looks for races runs without a ModuleHook.
class ModuleHook {
  public:
    using Handler = std::function<void(ModuleCall&)>;

    ModuleHook();
    ~ModuleHook();
    ModuleHook(const ModuleHook&) = delete;
    ModuleHook& operator=(const ModuleHook&) = delete;

    // Calls the handler on the module's thread with no lock held, in place of an earlier one.
    // "*" is every module without a handler of its own for the operation. What a handler
    // throws comes out of the module. "Load" and "Unload" are under the system loader's lock:
    // do not wait or throw there.
    void On(const std::string& module, const std::string& operation, Handler handler);
    void Off(const std::string& module, const std::string& operation);

    // "Init good_v2", "CreateInstance_V2 good_v2 key=codec", "QueryInterface good_v2
    // key=iface", "GetPluginMapFkeys map_two" and the same with " fill" for its second call.
    std::vector<std::string> Journal() const;
    int Count(const std::string& module, const std::string& operation) const;
    void Clear();

    // Waits until the line stands in the journal that many times; fails the test and throws
    // after kLongWait.
    void WaitFor(const std::string& line, int count = 1) const;
};

}  // namespace vessa_test

#endif
