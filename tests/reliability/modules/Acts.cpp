// What a hostile module does in one of its operations. One module for each act, of module.c with
// every operation calling TestModule_Throw; the environment's HOSTILE_OPERATION says in which one
// the act takes place. An act that its process does not survive says before that it begins.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "vessa/vessa.h"

extern "C" void TestModule_Throw(const char* operation);

namespace {

void SayBegin() {
    static const char kText[] = "act begins\n";
    const ssize_t ignored = write(STDOUT_FILENO, kText, sizeof kText - 1);
    (void)ignored;
}

#if defined(ACT_CALLS_BACK) || defined(ACT_STARTS_THREADS) || defined(ACT_KEEPS_THREAD) || \
    defined(ACT_JOINS_USER)
#  define USES_EXPORTS
#endif
#if defined(USES_EXPORTS)

// The exports, found in the program's library as a module finds them that is not linked with it.
template <class Function>
Function* Export(const char* name) {
    void* const symbol = dlsym(RTLD_DEFAULT, name);
    Function* function = nullptr;
    if (symbol == nullptr) std::abort();
    std::memcpy(&function, &symbol, sizeof function);
    return function;
}
#  define EXPORT(name) Export<decltype(name)>(#  name)

void Must(bool condition) {
    if (!condition) std::abort();
}

// In a stop the good module may be gone already, and the library cannot be started.
[[maybe_unused]] void UseGood() {
    void* instance = nullptr;
    void* found = nullptr;
    const int result = EXPORT(VESSA_CreateInstance)("good", &instance, nullptr);
    Must(result == VESSA_OK || result == VESSA_ERR_NOT_REGISTERED);
    if (result != VESSA_OK) return;
    Must(EXPORT(VESSA_QueryInterface)(instance, "iface", &found, nullptr) == VESSA_OK);
    Must(EXPORT(VESSA_DestroyInstance)(instance, nullptr) == VESSA_OK);
}

[[maybe_unused]] void ReadLists() {
    char value[256];
    unsigned int length = sizeof value;
    char** fkeys = nullptr;
    unsigned int count = 0;
    Must(EXPORT(VESSA_QueryConfigAttribute)("m", "file", value, &length) == VESSA_OK);
    Must(EXPORT(VESSA_QueryAllFkeys)(&fkeys, &count) == VESSA_OK);
    Must(EXPORT(VESSA_ReleaseAllFkeys)(fkeys, count) == VESSA_OK);
}

#endif

#if defined(ACT_THROWS)
[[noreturn]] void Act() {
    throw 42;
}
#elif defined(ACT_CALLS_BACK)
void Act() {
    const int started = EXPORT(VESSA_Init)();
    Must(started == VESSA_OK || started == VESSA_FAILED);
    UseGood();
    ReadLists();
    if (started == VESSA_OK) EXPORT(VESSA_Uninit)();
}
#elif defined(ACT_STARTS_THREADS)
void Act() {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            UseGood();
            ReadLists();
        });
    }
    for (std::thread& thread : threads) thread.join();
}
#elif defined(ACT_HANGS)
[[noreturn]] void Act() {
    SayBegin();
    for (;;) pause();
}
#elif defined(ACT_EXITS)
[[noreturn]] void Act() {
    SayBegin();
    std::exit(7);
}
#elif defined(ACT_ABORTS)
[[noreturn]] void Act() {
    SayBegin();
    std::abort();
}
#elif defined(ACT_CRASHES)
void Act() {
    SayBegin();
    volatile std::uintptr_t nowhere = 8;
    *reinterpret_cast<volatile int*>(nowhere) = 1;
}
#elif defined(ACT_LEAVES_THREAD)
// In the module's own code for ever; it says when it is there.
void* Stay(void* there) {
    *static_cast<volatile bool*>(there) = true;
    for (;;) usleep(1000);
}
void Act() {
    static volatile bool there = false;
    SayBegin();
    pthread_t thread;
    pthread_create(&thread, nullptr, Stay, const_cast<bool*>(&there));
    while (!there) sched_yield();
}
#elif defined(ACT_CLOSES_ITSELF)
void Act() {
    SayBegin();
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&TestModule_Throw), &info) == 0) std::abort();
    void* const self = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    dlclose(self);
    dlclose(self);
}
#elif defined(ACT_KEEPS_ITSELF)
void Act() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&TestModule_Throw), &info) == 0) std::abort();
    if (dlopen(info.dli_fname, RTLD_NOW) == nullptr) std::abort();
}
#elif defined(ACT_LEAVES_DESCRIPTOR)
void Act() {
    if (open("/dev/null", O_RDONLY) < 0) std::abort();
}
#elif defined(ACT_LEAVES_IDLE_THREAD)
// In the system's code: it does not need the module.
void Act() {
    void* const symbol = dlsym(RTLD_DEFAULT, "pause");
    void* (*idle)(void*) = nullptr;
    std::memcpy(&idle, &symbol, sizeof idle);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, idle, nullptr) != 0) std::abort();
}
#elif defined(ACT_KEEPS_THREAD) || defined(ACT_JOINS_USER)
// A thread from Init to Uninit: one that reads the lists, or one that has an instance of another
// plug-in until it is asked to end.
class Worker {
  public:
    void Start() {
        thread_ = std::thread([this] { Work(); });
        while (!is_there_) sched_yield();
    }
    void End() {
        is_to_end_ = true;
        thread_.join();
    }

  private:
    void Work() {
#  if defined(ACT_KEEPS_THREAD)
        do {
            ReadLists();
            is_there_ = true;
            sched_yield();
        } while (!is_to_end_);
#  else
        void* instance = nullptr;
        Must(EXPORT(VESSA_CreateInstance)("good", &instance, nullptr) == VESSA_OK);
        is_there_ = true;
        while (!is_to_end_) sched_yield();
        SayBegin();
        EXPORT(VESSA_DestroyInstance)(instance, nullptr);
#  endif
    }

    std::thread thread_;
    std::atomic<bool> is_there_{false};
    std::atomic<bool> is_to_end_{false};
};
Worker* worker = nullptr;

void ActOf(const char* operation) {
    if (std::strcmp(operation, "Init") == 0) {
        worker = new Worker;
        worker->Start();
    } else if (std::strcmp(operation, "Uninit") == 0) {
        worker->End();
        delete worker;
    }
}
#else
#  error "no act"
#endif

}  // namespace

void TestModule_Throw(const char* operation) {
#if defined(ACT_KEEPS_THREAD) || defined(ACT_JOINS_USER)
    ActOf(operation);
#else
    const char* const chosen = std::getenv("HOSTILE_OPERATION");
    if (chosen != nullptr && std::strcmp(chosen, operation) == 0) Act();
#endif
}

// Used by some acts alone.
extern "C" __attribute__((used, visibility("hidden"))) void TestModule_KeepUsed() {
    SayBegin();
}
