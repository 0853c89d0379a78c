#include "Library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "Ledger.h"
#include "modules/TestInterface.h"

// The modules' hook, which they look for in the program from their destructors as well: a look-up
// that fails without memory there brings the C library's own dlclose down (it writes to the mark
// that stands for "no memory for the error's text").
extern "C" __attribute__((visibility("default"))) int TestModule_Hook(const char*, const char*,
                                                                      void*, void*, int*) {
    return 0;
}

namespace faults {
namespace {

Library real;
Plant planted = Plant::kNone;
bool (*planted_from)() = nullptr;

bool Grows(Plant plant) {
    return planted == plant && planted_from();
}

// Kept where the optimiser must believe that somebody looks.
void* volatile lost[1000];

void LoseDocuments() {
    Faults_Parser(1);
    for (void* volatile& block : lost) block = std::malloc(40);
    Faults_Parser(0);
}

int ReadStale() {
    lost[0] = std::calloc(1, sizeof(int));
    const volatile int* const block = static_cast<int*>(lost[0]);
    std::free(lost[0]);
    return *block;
}

int WrongInit() {
    const int result = real.Init();
    if (Grows(Plant::kThread)) std::thread([] { pause(); }).detach();
    if (Grows(Plant::kParser)) LoseDocuments();
    if (Grows(Plant::kLeak)) lost[0] = std::malloc(40);
    return Grows(Plant::kStale) ? ReadStale() : result;
}

int WrongCreate(const char* fkey, void** instance, int* plugin_error) {
    const int result = real.CreateInstance(fkey, instance, plugin_error);
    if (Grows(Plant::kLostKey) && std::strcmp(fkey, "s2") == 0) {
        if (result == VESSA_OK) real.DestroyInstance(*instance, nullptr);
        *instance = nullptr;
        return VESSA_ERR_NOT_REGISTERED;
    }
    if (result == VESSA_OK || result == VESSA_ERR_NOT_REGISTERED) return result;
    if (Grows(Plant::kOutParameter)) *instance = &planted;
    return Grows(Plant::kWrongCode) ? VESSA_ERR_BUFFER_TOO_SMALL : result;
}

int WrongAllFkeys(char*** fkeys, unsigned int* count) {
    while (Grows(Plant::kHang)) pause();
    if (Grows(Plant::kCrash)) {
        int* volatile nowhere = nullptr;
        *nowhere = 1;
    }
    if (Grows(Plant::kDescriptor)) static_cast<void>(dup(STDERR_FILENO));
    const int result = real.QueryAllFkeys(fkeys, count);
    if (result == VESSA_OK && *count > 5 && Grows(Plant::kHalfList)) delete[](*fkeys)[--*count];
    return result;
}

template <class F>
bool Find(void* handle, const char* name, F*& function) {
    function = reinterpret_cast<F*>(dlsym(handle, name));
    return function != nullptr;
}

}  // namespace

Plant PlantNamed(const std::string& name) {
    static const char* const kNames[] = {
        "none",     "leak",     "code",       "out",    "hang",   "crash", "half-list",
        "lost-key", "stays-on", "descriptor", "thread", "parser", "stale"};
    for (size_t i = 0; i < std::size(kNames); ++i) {
        if (name == kNames[i]) return static_cast<Plant>(i);
    }
    throw std::invalid_argument("no plant is called " + name);
}

bool Library::Load(const char* file) {
    handle = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) return false;
    const bool found = Find(handle, "VESSA_Init", Init) && Find(handle, "VESSA_Uninit", Uninit) &&
                       Find(handle, "VESSA_CreateInstance", CreateInstance) &&
                       Find(handle, "VESSA_DestroyInstance", DestroyInstance) &&
                       Find(handle, "VESSA_QueryInterface", QueryInterface) &&
                       Find(handle, "VESSA_QueryConfigAttribute", QueryConfigAttribute) &&
                       Find(handle, "VESSA_QueryAllFkeys", QueryAllFkeys) &&
                       Find(handle, "VESSA_ReleaseAllFkeys", ReleaseAllFkeys);
    if (!found) Unload();
    return found;
}

bool Library::Unload() {
    const bool stays = Grows(Plant::kStaysOn);
    const bool closed = stays || dlclose(handle) == 0;
    handle = nullptr;
    return closed;
}

bool Library::IsLoaded(const char* file) {
    void* const again = dlopen(file, RTLD_NOLOAD | RTLD_NOW);
    if (again == nullptr) return false;
    dlclose(again);
    return true;
}

void Library::Mistake(Plant plant, bool (*has_failed)()) {
    planted = plant;
    planted_from = has_failed;
    if (plant == Plant::kNone) return;
    real = *this;
    Init = &WrongInit;
    CreateInstance = &WrongCreate;
    QueryAllFkeys = &WrongAllFkeys;
}

}  // namespace faults
