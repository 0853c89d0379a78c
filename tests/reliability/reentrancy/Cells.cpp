#include "reentrancy/Cells.h"

namespace reentrancy {

const char* ReachedName(Reached reached) {
    static const char* const kNames[] = {"a start",
                                         "a round of changes",
                                         "a round of changes, removal",
                                         "a first use",
                                         "a destroy",
                                         "a query",
                                         "an instance conflict",
                                         "a stop",
                                         "a put-off unload",
                                         "a destroy after the stop",
                                         "a query after the stop",
                                         "a put-off unload after the stop"};
    return kNames[static_cast<int>(reached)];
}

const char* ExportName(Export call) {
    static const char* const kNames[kExports] = {"Init",
                                                 "Uninit",
                                                 "CreateInstance",
                                                 "CreateInstance, own",
                                                 "DestroyInstance",
                                                 "DestroyInstance, own",
                                                 "DestroyInstance, last",
                                                 "QueryInterface",
                                                 "QueryInterface, own",
                                                 "QueryConfigAttribute",
                                                 "QueryAllFkeys",
                                                 "ReleaseAllFkeys"};
    return kNames[static_cast<int>(call)];
}

std::string Cell::Name() const {
    return slot.Operation() + " in " + ReachedName(slot.reached) + " / " +
           (on_own_thread ? "thread of the module" : "thread of the slot") + " / " +
           (beside_writer ? "a writer waits" : "no writer") + " / " + ExportName(call);
}

std::vector<Slot> AllSlots() {
    std::vector<Slot> slots;
    for (const char* operation : {"Entry", "Init", "GetFileVersion", "GetAllInterfaceIkeys"}) {
        for (const Reached reached : {Reached::kStart, Reached::kScan, Reached::kFirstUse})
            slots.push_back({reached, operation});
    }
    for (const Reached reached : {Reached::kStart, Reached::kScan, Reached::kScanRemoval}) {
        slots.push_back({reached, "GetPluginMapFkeys"});
        slots.push_back({reached, "GetPluginMapFkeys", true});
    }
    slots.push_back({Reached::kFirstUse, "CreateInstance"});
    slots.push_back({Reached::kFirstUse, "CreateInstance_V2"});
    for (const Reached reached :
         {Reached::kDestroy, Reached::kDestroyAfterStop, Reached::kConflict})
        slots.push_back({reached, "DestroyInstance"});
    for (const Reached reached : {Reached::kQuery, Reached::kQueryAfterStop})
        slots.push_back({reached, "QueryInterface"});
    for (const Reached reached :
         {Reached::kScanRemoval, Reached::kStop, Reached::kPutOff, Reached::kPutOffAfterStop})
        slots.push_back({reached, "Uninit"});
    return slots;
}

std::vector<Cell> AllCells() {
    std::vector<Cell> cells;
    for (const Slot& slot : AllSlots()) {
        for (const bool on_own_thread : {false, true}) {
            for (const bool beside_writer : {false, true}) {
                for (int call = 0; call < kExports; ++call)
                    cells.push_back(
                        {slot, on_own_thread, beside_writer, static_cast<Export>(call)});
            }
        }
    }
    return cells;
}

}  // namespace reentrancy
