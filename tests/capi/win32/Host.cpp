// An application that loads the library by its path, for what only this system has.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tova/win32/Imports.h"
#include "vessa/vessa.h"

namespace {

void Require(bool holds, const std::string& what) {
    if (!holds) throw std::runtime_error(what);
}

class Library {
  public:
    explicit Library(const wchar_t* path) : handle_(LoadLibraryW(path)) {
        Require(handle_ != nullptr, "load: " + std::to_string(GetLastError()));
    }

    template <typename Function>
    Function* Find(Function*, const char* name) const {
        const FARPROC found = GetProcAddress(handle_, name);
        Require(found != nullptr, name);
        Function* function = nullptr;
        std::memcpy(&function, &found, sizeof function);
        return function;
    }
    void Unload() { Require(FreeLibrary(handle_), "unload"); }

  private:
    const HMODULE handle_;
};

#define FIND(library, name) (library).Find(&name, #name)

struct Calls {
    explicit Calls(const Library& library)
        : init(FIND(library, VESSA_Init)),
          uninit(FIND(library, VESSA_Uninit)),
          create(FIND(library, VESSA_CreateInstance)),
          destroy(FIND(library, VESSA_DestroyInstance)) {}

    bool Serves(const char* fkey) const {
        void* instance = nullptr;
        if (create(fkey, &instance, nullptr) != VESSA_OK) return false;
        Require(destroy(instance, nullptr) == VESSA_OK, "destroy");
        return true;
    }

    decltype(&VESSA_Init) init;
    decltype(&VESSA_Uninit) uninit;
    decltype(&VESSA_CreateInstance) create;
    decltype(&VESSA_DestroyInstance) destroy;
};

// The time between two scans passes at once; everything else takes its time.
DWORD WINAPI WaitInAHurry(HANDLE handle, DWORD milliseconds) {
    constexpr DWORD kScanPeriodMs = 30000;
    return WaitForSingleObject(handle, milliseconds == kScanPeriodMs ? 5 : milliseconds);
}

// "b" appears while the library runs that nobody has loaded any more.
void ScanAfterUnload() {
    Library library(L".\\vessa.dll");
    const Calls calls(library);
    {
        const tova_test::StandIn<decltype(WaitForSingleObject)> hurry(
            "tova.dll", "WaitForSingleObject", &WaitInAHurry);
        Require(calls.init() == VESSA_OK, "start");
        library.Unload();
        Require(GetModuleHandleW(L"vessa.dll") != nullptr, "stays loaded");
        Require(calls.Serves("a") && !calls.Serves("b"), "a alone");
        Require(MoveFileW(L"tarnet\\b\\later.xml", L"tarnet\\b\\tarnet.xml"), "rename");
        while (!calls.Serves("b")) SwitchToThread();
    }
    // Whoever stops it holds it.
    Library again(L".\\vessa.dll");
    calls.uninit();
    again.Unload();
    Require(GetModuleHandleW(L"vessa.dll") == nullptr, "goes after its stop");
}

// Each has the root beside its own file.
void TwoCopies(const wchar_t* other) {
    Library first(L".\\vessa.dll");
    Library second(other);
    const Calls of_first(first);
    const Calls of_second(second);
    Require(of_first.init != of_second.init, "two libraries");
    Require(of_first.init() == VESSA_OK && of_second.init() == VESSA_OK, "start");
    Require(of_first.Serves("a") && !of_first.Serves("b"), "the first serves a");
    Require(of_second.Serves("b") && !of_second.Serves("a"), "the second serves b");
    of_first.uninit();
    first.Unload();
    Require(of_second.Serves("b"), "the second goes on alone");
    of_second.uninit();
    second.Unload();
    Require(GetModuleHandleW(L"vessa.dll") == nullptr, "both go");
}

DWORD g_ending_thread = 0;

DWORD WINAPI TellOfWaits(HANDLE handle, DWORD milliseconds) {
    if (GetCurrentThreadId() == g_ending_thread && milliseconds != 0)
        std::fprintf(stderr, "waits for %lu ms\n", milliseconds);
    return WaitForSingleObject(handle, milliseconds);
}

// Nobody is left who could answer.
void EndRunning(void (*end)(unsigned)) {
    Library library(L".\\vessa.dll");
    const Calls calls(library);
    // Never taken back.
    new tova_test::StandIn<decltype(WaitForSingleObject)>("tova.dll", "WaitForSingleObject",
                                                          &TellOfWaits);
    Require(calls.init() == VESSA_OK, "start");
    void* instance = nullptr;
    Require(calls.create("a", &instance, nullptr) == VESSA_OK, "create");
    g_ending_thread = GetCurrentThreadId();
    end(7);
}

void ByExit(unsigned status) {
    std::exit(static_cast<int>(status));
}

void ByExitProcess(unsigned status) {
    ExitProcess(status);
}

// The library comes and goes, started and stopped by another thread each time.
void LoadOnThreads() {
    for (int i = 0; i < 20; ++i) {
        const auto life = [](void*) -> DWORD {
            try {
                Library library(L".\\vessa.dll");
                const Calls calls(library);
                Require(calls.init() == VESSA_OK && calls.Serves("a"), "life");
                calls.uninit();
                library.Unload();
                return 1;
            } catch (const std::runtime_error&) {
                return 2;
            }
        };
        const HANDLE thread = CreateThread(nullptr, 0, life, nullptr, 0, nullptr);
        WaitForSingleObject(thread, INFINITE);
        DWORD result = 0;
        GetExitCodeThread(thread, &result);
        CloseHandle(thread);
        Require(result == 1, "a life on a thread");
        Require(GetModuleHandleW(L"vessa.dll") == nullptr, "goes");
    }
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
    const std::wstring way = count > 1 ? arguments[1] : L"";
    try {
        if (way == L"scan_after_unload")
            ScanAfterUnload();
        else if (way == L"two_copies")
            TwoCopies(arguments[2]);
        else if (way == L"on_threads")
            LoadOnThreads();
        else if (way == L"end_by_exit")
            EndRunning(&ByExit);
        else if (way == L"end_by_exit_process")
            EndRunning(&ByExitProcess);
        else
            throw std::runtime_error("no such way");
    } catch (const std::runtime_error& failure) {
        std::fprintf(stderr, "failed: %s\n", failure.what());
        return 1;
    }
    return 0;
}
