// ModuleSide.h: between the modules of the random run and its program. Each copy of the module
// carries a number and a kind in its marker, and asks the program before each operation.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_MODULESIDE_H
#define VESSA_TESTS_RELIABILITY_RANDOM_MODULESIDE_H

#include <atomic>
#include <cstdint>

extern "C" {

// The program finds the marker in the built module and writes number (16 hexadecimal digits) and
// kind into each copy. Kinds: g good, i Init fails, t Init throws, u Uninit fails, n the entry
// gives null, s an operation is missing, m does not count its instances (planted).
#define RANDOM_MARKER "RANDOM-MODULE:"
#define RANDOM_MARKER_DIGITS 16

enum RandomOperation {
    kRandomInit,
    kRandomUninit,
    kRandomCreate,
    kRandomDestroy,
    kRandomQuery,
    kRandomMap
};

enum RandomAction {
    kRandomGoOn,
    kRandomFail,         // return the code; destroy has freed the instance
    kRandomFailGarbage,  // the same, and something is written to the out parameter
    kRandomThrow,        // throw; destroy has freed the instance
    kRandomNull,         // success without an instance
    kRandomSame,         // create gives "instance" again
    kRandomIgnore        // destroy does nothing and succeeds
};

struct RandomCall {
    uint64_t serial;
    RandomOperation operation;
    void* instance;  // of destroy and query; for kRandomSame the program's answer
    int code;        // of a failure; the program's answer
};

struct RandomInterface {
    void* instance;
    uint64_t serial;
    int (*Add)(int a, int b);
};

struct RandomInstance {
    uint64_t magic;  // kRandomAlive while it lives
    uint64_t serial;
    RandomInterface interface;
};

constexpr uint64_t kRandomAlive = 0x616c6976652d2d2d;
constexpr uint64_t kRandomDead = 0x646561642d2d2d2d;
constexpr char kRandomIkey[] = "iface";
constexpr int kRandomErrorIkey = 5;
constexpr int kRandomErrorInit = 7;
constexpr int kRandomErrorUninit = 9;

// The program's side. live is the module's own count of its instances, valid until it is told
// that the module goes. Keys: how many announced keys were written (at most room), or how many
// there are with keys null.
void RandomHost_Loaded(uint64_t serial, const std::atomic<int64_t>* live);
void RandomHost_Gone(uint64_t serial, int64_t live);
RandomAction RandomHost_Call(RandomCall* call);
void* RandomHost_Allocate(uint64_t size);
void RandomHost_Free(void* block);
// An operation was called for an instance that is dead or not the module's; ends the program.
void RandomHost_WrongInstance(uint64_t serial, const char* operation);
int RandomHost_Keys(uint64_t serial, char (*keys)[256], int room);
}

#endif
