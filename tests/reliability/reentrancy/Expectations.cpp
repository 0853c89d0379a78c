// Derived from the headers' sentences and, for what waits for ever, from the table "Who is called
// with what held" of docs/design/locks.md; nothing here was taken over from a run.
#include "reentrancy/Expectations.h"

namespace reentrancy {

const char kHung[] = "hung";
const char kCrashed[] = "crashed";

namespace {

Expectation Documented(char rule, const char* outcome) {
    return {Expectation::kDocumented, outcome, rule};
}
Expectation Excluded(char rule, const char* outcome) {
    return {Expectation::kExcluded, outcome, rule};
}

// By a thread inside of the call into the module.
Expectation InitInside(const Slot& slot) {
    if (slot.Is(Reached::kStart)) return Documented('b', "OK");
    if (slot.Is(Reached::kStop)) return Documented('c', "FAILED");
    if (slot.Is(Reached::kPutOffAfterStop)) return Documented('d', "FAILED");
    if (slot.IsAfterStop()) return Documented('e', "OK");
    return Documented('a', "OK");
}

Expectation UninitInside(const Slot& slot) {
    const bool has_user =
        !slot.Is(Reached::kStart) && !slot.Is(Reached::kStop) && !slot.IsAfterStop();
    return has_user ? Documented('f', "put off") : Documented('g', "nothing");
}

// By a thread of the module's own, which is outside of every call into a module: it waits for the
// global mutex, a start for the registry's readers, and a stop for them and for the round of
// changes that is under way.
Expectation InitOnOwnThread(const Slot& slot) {
    const bool global_is_held = slot.Is(Reached::kStart) || slot.Is(Reached::kStop);
    const bool would_start_beside_reader = slot.Is(Reached::kPutOffAfterStop);
    return Excluded('p', global_is_held || would_start_beside_reader ? kHung : "OK");
}

Expectation UninitOnOwnThread(const Slot& slot) {
    if (slot.IsAfterStop()) return Excluded('p', "nothing");
    return Excluded('p', slot.Reads() ? kHung : "stops");
}

Expectation Create(const Cell& cell) {
    if (cell.slot.IsAfterStop()) return Documented('j', "NOT_REGISTERED");
    if (cell.on_own_thread && cell.slot.Is(Reached::kConflict)) return Excluded('r', "OK");
    return Documented('h', "OK");
}

Expectation CreateOwn(const Cell& cell) {
    const Slot& slot = cell.slot;
    if (slot.IsAfterStop() || slot.operation == "Uninit") return Documented('j', "NOT_REGISTERED");
    if (slot.IsOfLoad() && cell.on_own_thread) return Excluded('q', kHung);
    if (slot.Is(Reached::kConflict))
        return cell.on_own_thread ? Excluded('r', kHung) : Documented('l', "INSTANCE_CONFLICT");
    if (slot.operation == "Entry") return Documented('k', "FAILED");
    return Documented('h', "OK");
}

// The unload that comes with it has to wait for the registry's readers, and so for the operation,
// where that is one. On a thread that reads it is put off.
Expectation DestroyLast(const Cell& cell) {
    const Slot& slot = cell.slot;
    if (slot.Is(Reached::kStart)) return {};
    if (!cell.on_own_thread) return Documented('h', "OK");
    return Excluded('s', slot.Reads() ? kHung : "OK");
}

Expectation Destroy(const Cell& cell) {
    if (cell.on_own_thread && cell.slot.Is(Reached::kConflict)) return Excluded('r', "OK");
    // After the stop every plug-in is unregistered.
    return cell.slot.IsAfterStop() ? DestroyLast(cell) : Documented('h', "OK");
}

Expectation DestroyOwn(const Cell& cell) {
    const Slot& slot = cell.slot;
    if (slot.IsDestroy() || slot.IsPutOff()) return Documented('m', "ARGUMENT");
    if (slot.IsQuery()) return Excluded('t', slot.IsAfterStop() ? kCrashed : "OK");
    if (!slot.Is(Reached::kConflict)) return {};
    return cell.on_own_thread ? Excluded('r', kHung) : Documented('h', "OK");
}

Expectation Query(const Cell& cell) {
    if (cell.on_own_thread && cell.slot.Is(Reached::kConflict)) return Excluded('r', "OK");
    return Documented('h', "OK");
}

Expectation QueryOwn(const Cell& cell) {
    const Slot& slot = cell.slot;
    if (slot.IsDestroy() || slot.IsPutOff()) return Documented('m', "ARGUMENT");
    if (slot.IsQuery()) return Documented('h', "OK");
    return slot.Is(Reached::kConflict) ? Query(cell) : Expectation();
}

}  // namespace

bool EndsItsProcess(const Expectation& expectation) {
    return expectation.outcome == kHung || expectation.outcome == kCrashed;
}

const std::vector<Rule>& AllRules() {
    static const std::vector<Rule> rules = {
        {'a', "counted", "vessa.h, VESSA_Init", "Each later call only counts."},
        {'b', "counted on the start", "vessa.h, VESSA_Init",
         "From inside a plug-in call it never waits for a start or stop on another thread: a start "
         "in progress is counted on."},
        {'c', "no start in a stop", "vessa.h, VESSA_Init",
         "VESSA_FAILED: the call came from inside a plug-in call while the library was being "
         "stopped."},
        {'d', "no start in an unload", "vessa.h, VESSA_Init",
         "VESSA_FAILED: the call came from inside one that creates, loads or unloads while the "
         "library did not run."},
        {'e', "started", "vessa.h, VESSA_Init", "The first call starts the library."},
        {'f', "put off", "vessa.h, VESSA_Uninit",
         "The last one, when it comes from inside a plug-in call, is carried out when the "
         "outermost "
         "call into the library on this thread ends."},
        {'g', "not matched", "vessa.h, VESSA_Uninit",
         "Without a matching VESSA_Init the call does nothing."},
        {'h', "calls back", "tarnet.h, law 4",
         "Every VESSA_ function may be called from inside every operation, and from threads that "
         "the module started."},
        {'j', "not registered", "vessa.h, VESSA_CreateInstance",
         "No plug-in under this fkey, or it was unregistered and waits for its last instance to "
         "go."},
        {'k', "no table yet", "vessa.h, VESSA_FAILED",
         "An operation of the module is missing: its entry has not returned the table."},
        {'l', "handed out twice", "vessa.h, VESSA_CreateInstance",
         "The module returned the pointer of a live instance."},
        {'m', "no longer live", "vessa.h, VESSA_DestroyInstance",
         "From the start of this call neither it nor any interface got from it may be used; of two "
         "calls with the same instance one is refused."},
        {'n', "not declared", "vessa.h, VESSA_QueryConfigAttribute",
         "fkey is not declared: the stop has forgotten the list files."},
        {'p', "own thread in Init or Uninit", "tarnet.h, law 4",
         "An operation must not wait for a thread of its own that is in VESSA_Init or "
         "VESSA_Uninit."},
        {'q', "own thread loads this module", "tarnet.h, law 4",
         "An operation must not wait for a thread of its own that loads or unloads this same "
         "module."},
        {'r', "own thread uses instances in a conflict", "tarnet.h, law 4",
         "A destroy that is called for a pointer which was handed out twice must not wait for a "
         "thread of its own that uses instances."},
        {'s', "own thread destroys a last instance", "tarnet.h, law 4",
         "An operation must not wait for a thread of its own that destroys the last instance of a "
         "plug-in that was unregistered."},
        {'t', "the instance under the query", "vessa.h, VESSA_QueryInterface",
         "The instance must stay alive during the call; tarnet.h, law 6."},
    };
    return rules;
}

Expectation Expected(const Cell& cell) {
    const Slot& slot = cell.slot;
    // Nothing is registered any more that an application could read.
    if (cell.beside_writer && slot.IsAfterStop() && !slot.Reads()) return {};
    switch (cell.call) {
        case Export::kInit:
            return cell.on_own_thread ? InitOnOwnThread(slot) : InitInside(slot);
        case Export::kUninit:
            return cell.on_own_thread ? UninitOnOwnThread(slot) : UninitInside(slot);
        case Export::kCreate:
            return Create(cell);
        case Export::kCreateOwn:
            return CreateOwn(cell);
        case Export::kDestroy:
            return Destroy(cell);
        case Export::kDestroyOwn:
            return DestroyOwn(cell);
        case Export::kDestroyLast:
            return DestroyLast(cell);
        case Export::kQuery:
            return Query(cell);
        case Export::kQueryOwn:
            return QueryOwn(cell);
        case Export::kAttribute:
            return slot.IsAfterStop() ? Documented('n', "FAILED") : Documented('h', "OK");
        default:
            return Documented('h', "OK");
    }
}

}  // namespace reentrancy
