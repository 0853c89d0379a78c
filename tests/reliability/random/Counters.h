// Counters.h: how often each kind of operation, change, fault and result occurred. --complete
// refuses a run in which one of them never did.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_COUNTERS_H
#define VESSA_TESTS_RELIABILITY_RANDOM_COUNTERS_H

namespace vessa_random {

#define VESSA_RANDOM_OPERATIONS(X)                                  \
  X(kCreateOwn, "create of an own key")                             \
  X(kCreateShared, "create of a shared key")                        \
  X(kCreateUnknown, "create of an unknown key")                     \
  X(kDestroyOwn, "destroy of an own instance")                      \
  X(kDestroyShared, "destroy of a shared key's instance")           \
  X(kDestroyDead, "destroy of a dead instance")                     \
  X(kDuel, "destroy of one instance by two threads")                \
  X(kQuery, "query")                                                \
  X(kQueryNoKey, "query of an unknown interface")                   \
  X(kQueryDead, "query of a dead instance")                         \
  X(kAttribute, "attribute")                                        \
  X(kAttributeShort, "attribute into a short buffer")               \
  X(kAllKeys, "all keys, and their release")                        \
  X(kInit, "init")                                                  \
  X(kUninit, "uninit")                                              \
  X(kBadArgument, "bad argument")                                   \
  X(kNested, "operation from inside a module's operation")          \
  X(kFromInit, "calls from inside Init, Uninit and announcing")     \
  X(kLastDestroy, "destroy that unloads an unregistered module")    \
  X(kLastDestroyNested, "the same, put off to the end of a create") \
  X(kLifeStart, "start or stop without anybody else's start")       \
  X(kLifeNestedStop, "last stop from inside a create")

#define VESSA_RANDOM_CHANGES(X)                                     \
  X(kRound, "round of changes")                                     \
  X(kListWritten, "list file written")                              \
  X(kListBroken, "list file broken")                                \
  X(kListRemoved, "list file removed")                              \
  X(kModuleReplaced, "module replaced by rename")                   \
  X(kModuleBroken, "module replaced by one that does not work")     \
  X(kModuleRemoved, "module removed")                               \
  X(kSharedChanged, "shared list changed")                          \
  X(kAnnounced, "announced keys registered")                        \
  X(kConflict, "registration refused")                              \
  X(kRegisteredAgain, "registered again before its last instance")  \
  X(kFileNameTaken, "file name taken for good by a failing Uninit") \
  X(kFullStop, "full stop")

#define VESSA_RANDOM_FAULTS(X)                          \
  X(kFailCreate, "create fails in the module")          \
  X(kFailCreateGarbage, "the same, and writes garbage") \
  X(kThrowCreate, "create throws")                      \
  X(kNullCreate, "create succeeds with null")           \
  X(kSameCreate, "create gives a live pointer")         \
  X(kFailDestroy, "destroy fails in the module")        \
  X(kThrowDestroy, "destroy throws")                    \
  X(kFailQuery, "query fails in the module")            \
  X(kFailQueryGarbage, "the same, and writes garbage")  \
  X(kThrowQuery, "query throws")                        \
  X(kAllocation, "allocation fails in a call")          \
  X(kAllocationInRound, "allocation fails in a round")  \
  X(kAccessFails, "a call finds no file")               \
  X(kLoadFails, "a call cannot load")                   \
  X(kSymbolFails, "a call finds no symbol")             \
  X(kRoundOpenFails, "a scan cannot read a folder")     \
  X(kRoundAccessFails, "a round finds no list file")    \
  X(kRoundLoadFails, "a round cannot load")             \
  X(kThreadFails, "a start gets no thread")

#define VESSA_RANDOM_RESULTS(X)                         \
  X(kResultOk, "VESSA_OK")                              \
  X(kResultFailed, "VESSA_FAILED")                      \
  X(kResultArgument, "VESSA_ERR_ARGUMENT")              \
  X(kResultNoFile, "VESSA_ERR_NO_MODULE_FILE")          \
  X(kResultNotRegistered, "VESSA_ERR_NOT_REGISTERED")   \
  X(kResultNoInterface, "VESSA_ERR_NO_INTERFACE")       \
  X(kResultLoad, "VESSA_ERR_MODULE_LOAD")               \
  X(kResultMemory, "VESSA_ERR_OUT_OF_MEMORY")           \
  X(kResultTooSmall, "VESSA_ERR_BUFFER_TOO_SMALL")      \
  X(kResultInit, "VESSA_ERR_MODULE_INIT")               \
  X(kResultPluginConflict, "VESSA_ERR_PLUGIN_CONFLICT") \
  X(kResultInstanceConflict, "VESSA_ERR_INSTANCE_CONFLICT")

#define VESSA_RANDOM_ENUMERATOR(name, text) name,
enum Kind {
    VESSA_RANDOM_OPERATIONS(VESSA_RANDOM_ENUMERATOR) kOperationsEnd,
    VESSA_RANDOM_CHANGES(VESSA_RANDOM_ENUMERATOR) kChangesEnd,
    VESSA_RANDOM_FAULTS(VESSA_RANDOM_ENUMERATOR) kFaultsEnd,
    VESSA_RANDOM_RESULTS(VESSA_RANDOM_ENUMERATOR) kKinds
};
#undef VESSA_RANDOM_ENUMERATOR

void Count(Kind kind);
// Counts what an export returned, and ends the program if the number is not one of its results.
void CountResult(int result);
long CountOf(Kind kind);
long Faults();
// Whether each kind has occurred.
bool IsComplete();
// One line for each kind.
void PrintCounts();

}  // namespace vessa_random

#endif
