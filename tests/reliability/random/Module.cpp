// The module of the random run: it counts its own instances, and does what the program asks for.
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "reliability/random/ModuleSide.h"
#include "vessa/tarnet.h"

namespace {

// Volatile: what stands in the file counts, not what the compiler saw.
const volatile char marker[] = RANDOM_MARKER "0000000000000000:g";

uint64_t serial = 0;
char kind = 'g';
std::atomic<int64_t> live{0};
char garbage = 0;

template <class F>
void Find(const char* name, F& function) {
    function = reinterpret_cast<F>(dlsym(RTLD_DEFAULT, name));
    if (function == nullptr) std::abort();
}

decltype(&RandomHost_Call) call_host;
decltype(&RandomHost_Allocate) allocate;
decltype(&RandomHost_Free) release;
decltype(&RandomHost_Keys) announced_keys;
decltype(&RandomHost_WrongInstance) wrong_instance;

__attribute__((constructor)) void Load() {
    Find("RandomHost_Call", call_host);
    Find("RandomHost_Allocate", allocate);
    Find("RandomHost_Free", release);
    Find("RandomHost_Keys", announced_keys);
    Find("RandomHost_WrongInstance", wrong_instance);
    const size_t begin = sizeof RANDOM_MARKER - 1;
    char digits[RANDOM_MARKER_DIGITS + 1] = "";
    for (size_t i = 0; i < RANDOM_MARKER_DIGITS; ++i) digits[i] = marker[begin + i];
    serial = std::strtoull(digits, nullptr, 16);
    kind = marker[begin + RANDOM_MARKER_DIGITS + 1];
    decltype(&RandomHost_Loaded) loaded = nullptr;
    Find("RandomHost_Loaded", loaded);
    loaded(serial, &live);
}

__attribute__((destructor)) void Unload() {
    decltype(&RandomHost_Gone) gone = nullptr;
    Find("RandomHost_Gone", gone);
    gone(serial, live.load());
}

[[noreturn]] void Throw() {
    throw std::runtime_error("thrown by a module");
}

int Add(int a, int b) {
    return a + b;
}

int Init() {
    RandomCall call{serial, kRandomInit, nullptr, 0};
    call_host(&call);
    if (kind == 't') Throw();
    return kind == 'i' ? kRandomErrorInit : 0;
}

int Uninit() {
    RandomCall call{serial, kRandomUninit, nullptr, 0};
    call_host(&call);
    return kind == 'u' ? kRandomErrorUninit : 0;
}

int Create(void** instance) {
    RandomCall call{serial, kRandomCreate, nullptr, 0};
    switch (call_host(&call)) {
        case kRandomFail:
            return call.code;
        case kRandomFailGarbage:
            *instance = &garbage;
            return call.code;
        case kRandomThrow:
            Throw();
        case kRandomNull:
            *instance = nullptr;
            return 0;
        case kRandomSame:
            *instance = call.instance;
            return 0;
        default:
            break;
    }
    auto* const made = static_cast<RandomInstance*>(allocate(sizeof(RandomInstance)));
    if (made == nullptr) return -2;
    *made = RandomInstance{kRandomAlive, serial, {made, serial, Add}};
    if (kind != 'm') live.fetch_add(1);
    *instance = made;
    return 0;
}

int Destroy(void* instance) {
    RandomCall call{serial, kRandomDestroy, instance, 0};
    const RandomAction action = call_host(&call);
    if (action == kRandomIgnore) return 0;
    auto* const gone = static_cast<RandomInstance*>(instance);
    if (gone->magic != kRandomAlive || gone->serial != serial) wrong_instance(serial, "destroy");
    gone->magic = kRandomDead;
    release(gone);
    if (kind != 'm') live.fetch_sub(1);
    if (action == kRandomThrow) Throw();
    return action == kRandomFail ? call.code : 0;
}

int Query(void* instance, const char* ikey, void** iface) {
    RandomCall call{serial, kRandomQuery, instance, 0};
    switch (call_host(&call)) {
        case kRandomFail:
            return call.code;
        case kRandomFailGarbage:
            *iface = &garbage;
            return call.code;
        case kRandomThrow:
            Throw();
        default:
            break;
    }
    auto* const asked = static_cast<RandomInstance*>(instance);
    if (asked->magic != kRandomAlive || asked->serial != serial) wrong_instance(serial, "query");
    if (std::strcmp(ikey, kRandomIkey) != 0) return kRandomErrorIkey;
    *iface = &asked->interface;
    return 0;
}

const char** Ikeys() {
    static const char* ikeys[] = {kRandomIkey, nullptr};
    return ikeys;
}

const char* Version() {
    return "random";
}

#if RANDOM_TABLE == 2
int CreateV2(const char* /*fkey*/, void** instance) {
    return Create(instance);
}

int Map(char (*keys)[TARNET_FKEY_SIZE], int* count) {
    RandomCall call{serial, kRandomMap, nullptr, 0};
    call_host(&call);
    *count = announced_keys(serial, keys, *count);
    return 0;
}

const tarnet_export_table_v2 whole = {Init, Uninit, CreateV2, Destroy, Query, Ikeys, Version, Map};
const tarnet_export_table_v2 lacking = {Init,  Uninit,  CreateV2, nullptr,
                                        Query, nullptr, nullptr,  nullptr};
#else
const tarnet_export_table_v1 whole = {Init, Uninit, Create, Destroy, Query, Ikeys, Version};
const tarnet_export_table_v1 lacking = {Init, Uninit, Create, Destroy, nullptr, nullptr, nullptr};
#endif

template <class Table>
const Table* Entry() {
    if (kind == 'n') return nullptr;
    return kind == 's' ? &lacking : &whole;
}

}  // namespace

#if RANDOM_TABLE == 2
const tarnet_export_table_v2* TARNET_GetPluginInterface_V2() {
    return Entry<tarnet_export_table_v2>();
}
#else
const tarnet_export_table_v1* TARNET_GetPluginInterface() {
    return Entry<tarnet_export_table_v1>();
}
#endif
