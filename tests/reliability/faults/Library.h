// Library.h: the library's functions, from the file that is loaded now. A planted mistake is put
// between, so that the checks can be tested.
#ifndef VESSA_TESTS_RELIABILITY_FAULTS_LIBRARY_H
#define VESSA_TESTS_RELIABILITY_FAULTS_LIBRARY_H

#include <string>

#include "vessa/vessa.h"

namespace faults {

// What goes wrong as soon as something failed on purpose.
enum class Plant {
    kNone,
    kLeak,          // a block is lost
    kWrongCode,     // a failing create has a code that it must not have
    kOutParameter,  // and leaves an instance behind
    kHang,          // the list of keys waits for ever
    kCrash,
    kHalfList,    // one of a list's declared keys is missing
    kLostKey,     // one is declared and never served
    kStaysOn,     // the library cannot be unloaded
    kDescriptor,  // a descriptor is lost
    kThread,      // a thread is left
    kParser,      // the parser loses more than a document
    kStale        // a block is read that was given back: for the address sanitizer
};
// Throws std::invalid_argument.
Plant PlantNamed(const std::string& name);

struct Library {
    decltype(&VESSA_Init) Init;
    decltype(&VESSA_Uninit) Uninit;
    decltype(&VESSA_CreateInstance) CreateInstance;
    decltype(&VESSA_DestroyInstance) DestroyInstance;
    decltype(&VESSA_QueryInterface) QueryInterface;
    decltype(&VESSA_QueryConfigAttribute) QueryConfigAttribute;
    decltype(&VESSA_QueryAllFkeys) QueryAllFkeys;
    decltype(&VESSA_ReleaseAllFkeys) ReleaseAllFkeys;
    void* handle;

    // False: the system could not load it.
    bool Load(const char* file);
    bool Unload();
    static bool IsLoaded(const char* file);

    // has_failed tells from when on it grows.
    void Mistake(Plant plant, bool (*has_failed)());
};

}  // namespace faults

#endif
