#include "Counters.h"

#include <atomic>
#include <cstdio>

#include "Random.h"
#include "vessa/vessa.h"

namespace vessa_random {
namespace {

std::atomic<long> counts[kKinds];

struct ResultKind {
    int result;
    Kind kind;
};
constexpr ResultKind kResultKinds[] = {
    {VESSA_OK, kResultOk},
    {VESSA_FAILED, kResultFailed},
    {VESSA_ERR_ARGUMENT, kResultArgument},
    {VESSA_ERR_NO_MODULE_FILE, kResultNoFile},
    {VESSA_ERR_NOT_REGISTERED, kResultNotRegistered},
    {VESSA_ERR_NO_INTERFACE, kResultNoInterface},
    {VESSA_ERR_MODULE_LOAD, kResultLoad},
    {VESSA_ERR_OUT_OF_MEMORY, kResultMemory},
    {VESSA_ERR_BUFFER_TOO_SMALL, kResultTooSmall},
    {VESSA_ERR_MODULE_INIT, kResultInit},
    {VESSA_ERR_PLUGIN_CONFLICT, kResultPluginConflict},
    {VESSA_ERR_INSTANCE_CONFLICT, kResultInstanceConflict},
};

const char* const kNames[] = {
#define VESSA_RANDOM_NAME(name, text) text,
    VESSA_RANDOM_OPERATIONS(VESSA_RANDOM_NAME) nullptr,
    VESSA_RANDOM_CHANGES(VESSA_RANDOM_NAME) nullptr, VESSA_RANDOM_FAULTS(VESSA_RANDOM_NAME) nullptr,
    VESSA_RANDOM_RESULTS(VESSA_RANDOM_NAME)
#undef VESSA_RANDOM_NAME
};

}  // namespace

void Count(Kind kind) {
    counts[kind].fetch_add(1, std::memory_order_relaxed);
}

void CountResult(int result) {
    for (const ResultKind& known : kResultKinds) {
        if (known.result == result) return Count(known.kind);
    }
    Mismatch("the result of an export", "one of the documented codes", ResultName(result));
}

long CountOf(Kind kind) {
    return counts[kind].load();
}

long Faults() {
    long faults = 0;
    for (int kind = kChangesEnd + 1; kind < kFaultsEnd; ++kind) faults += counts[kind].load();
    return faults;
}

bool IsComplete() {
    for (int kind = 0; kind < kKinds; ++kind) {
        if (kNames[kind] != nullptr && counts[kind].load() == 0) return false;
    }
    return true;
}

void PrintCounts() {
    for (int kind = 0; kind < kKinds; ++kind) {
        if (kNames[kind] == nullptr) continue;
        const long count = counts[kind].load();
        std::printf("%12ld  %s%s\n", count, kNames[kind], count == 0 ? "  NEVER" : "");
    }
}

}  // namespace vessa_random
