// Library.h: the library as an application is delivered with it: the built shared libraries in a
// folder of their own, with a plug-in root beside them, loaded from there.
#ifndef VESSA_BENCH_LIBRARY_H
#define VESSA_BENCH_LIBRARY_H

#include <vessa/vessa.h>

#include <string>

#include "common/Folder.h"
#include "common/Keys.h"

namespace bench {

// One at a time in a process. The library is not started.
class Library {
  public:
    Library();
    explicit Library(const std::string& parent);
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    const std::string& Folder() const { return folder_.Path(); }
    // An empty root, or another folder in its place.
    std::string MakeRoot();
    void LinkRoot(const std::string& root);
    // A root of list files with this many keys on one module, which is copied there.
    void DeclareOnOneModule(size_t keys);

    void* Symbol(const char* name) const;

    decltype(&VESSA_Init) Init = nullptr;
    decltype(&VESSA_Uninit) Uninit = nullptr;
    decltype(&VESSA_CreateInstance) CreateInstance = nullptr;
    decltype(&VESSA_DestroyInstance) DestroyInstance = nullptr;
    decltype(&VESSA_QueryInterface) QueryInterface = nullptr;

  private:
    template <class Function>
    void Find(Function& function, const char* name);

    TempFolder folder_;
    void* vessa_ = nullptr;
};

// A started library. Ends the program if it cannot be started.
class StartedLibrary {
  public:
    explicit StartedLibrary(Library& library);
    ~StartedLibrary() { library_.Uninit(); }
    StartedLibrary(const StartedLibrary&) = delete;
    StartedLibrary& operator=(const StartedLibrary&) = delete;

  private:
    Library& library_;
};

// The scan of every 30 seconds in the program's hands. While it is held the library's thread
// waits for the program instead of the clock. A program that uses this exports its symbols.
class Scans {
  public:
    // After the library's construction and before anything else with it.
    static void Attach(const Library& library);
    // Before the library is started, and before it is stopped.
    static void Hold();
    static void Release();
    // Lets one scan, with what follows from it, take place: its duration in seconds.
    static double RunOne();
};

}  // namespace bench

#endif
