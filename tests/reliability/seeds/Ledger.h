// Ledger.h: what the modules saw, and that it is in order.
//
//   mapped -> Init -> operations, in any number -> Uninit -> unmapped
//
// No Init of an initialised module; no operation outside of Init and Uninit; no Uninit with a live
// instance or while an operation is inside; no destroy and no query of what is not live. Each
// breach fails the run. It is kept by the threads of a schedule, one of which runs at a time,
// without sanitizers: the thread sanitizer sees no order in it.
#ifndef VESSA_TESTS_RELIABILITY_SEEDS_LEDGER_H
#define VESSA_TESTS_RELIABILITY_SEEDS_LEDGER_H

#include "reliability/seeds/World.h"

namespace seeds::ledger {

// The module of that file; kModules if it is none of ours.
Module FindModule(const char* name);

void Reset();
void Loaded(Module module);
void Unloaded(Module module);
void InitBegins(Module module);
void InitEnds(Module module, bool succeeded);
void UninitBegins(Module module);
void UninitEnds(Module module);
void Enter(Module module, const char* operation);
void Leave(Module module);

// Addresses that nobody may look behind. One that was given back is the next to be given out.
void* MakeInstance(Module module);
void DropInstance(Module module, void* instance);
void CheckInstance(Module module, const void* instance);

// Nothing is mapped, initialised or alive.
void CheckNothingIsLeft();

struct Totals {
    unsigned long inits, creates, queries, unloads;
};
Totals Count();

}  // namespace seeds::ledger

#endif
