// Cells.h: the cells of the re-entrancy matrix.
//
// A cell is one call of one export from inside one call into a module: which operation it is and
// on which way the library came to it (a slot), whether the export is called by the slot's thread
// or by a thread that the module starts there and waits for, and whether another thread waits at
// the registry's gate as a writer meanwhile.
//
// A new slot: a row in AllSlots, how it is reached in CellRun.cpp, what it holds in
// Expectations.cpp. A new call: an Export, its name, its case in CellRun::Call, its rule.
#ifndef VESSA_TESTS_RELIABILITY_REENTRANCY_CELLS_H
#define VESSA_TESTS_RELIABILITY_REENTRANCY_CELLS_H

#include <string>
#include <vector>

namespace reentrancy {

enum class Reached {
    kStart,             // registration in the first scan, inside VESSA_Init
    kScan,              // registration on the scanning thread
    kScanRemoval,       // unregistration on the scanning thread
    kFirstUse,          // load on demand, and the create after it
    kDestroy,           // VESSA_DestroyInstance
    kQuery,             // VESSA_QueryInterface
    kConflict,          // the destroy of a pointer that was handed out twice
    kStop,              // unregistration inside the last VESSA_Uninit
    kPutOff,            // the unload that a live instance had put off
    kDestroyAfterStop,  // the same three when the library does not run any more
    kQueryAfterStop,
    kPutOffAfterStop,
};

// The calls: the eight exports, three of them also about the module that makes the call, and one
// about the last instance of a plug-in that was unregistered.
enum class Export {
    kInit,
    kUninit,
    kCreate,
    kCreateOwn,
    kDestroy,
    kDestroyOwn,
    kDestroyLast,
    kQuery,
    kQueryOwn,
    kAttribute,
    kAllFkeys,
    kReleaseFkeys,
};
constexpr int kExports = 12;

struct Slot {
    Reached reached;
    std::string operation;  // as ModuleHook names it
    bool fills = false;     // the second call of GetPluginMapFkeys

    std::string Operation() const { return operation + (fills ? " (fill)" : ""); }
    bool Is(Reached what) const { return reached == what; }
    bool IsOnScanningThread() const { return Is(Reached::kScan) || Is(Reached::kScanRemoval); }
    bool IsAfterStop() const {
        return Is(Reached::kDestroyAfterStop) || Is(Reached::kQueryAfterStop) ||
               Is(Reached::kPutOffAfterStop);
    }
    // Part of a load: the module's mutex is held.
    bool IsOfLoad() const {
        return operation == "Entry" || operation == "Init" || operation == "GetFileVersion" ||
               operation == "GetAllInterfaceIkeys";
    }
    // Everything but a plain destroy and query is called by a reader of the registry.
    bool Reads() const { return !IsDestroy() && !IsQuery(); }
    bool IsDestroy() const { return Is(Reached::kDestroy) || Is(Reached::kDestroyAfterStop); }
    bool IsQuery() const { return Is(Reached::kQuery) || Is(Reached::kQueryAfterStop); }
    bool IsPutOff() const { return Is(Reached::kPutOff) || Is(Reached::kPutOffAfterStop); }
};

struct Cell {
    Slot slot;
    bool on_own_thread = false;
    bool beside_writer = false;
    Export call = Export::kInit;

    // "Init in a start / thread of the module / a writer waits / VESSA_Init"
    std::string Name() const;
};

const char* ReachedName(Reached reached);
const char* ExportName(Export call);
std::vector<Slot> AllSlots();
// Slots first, then threads, then writers, then calls: the number of a cell is its index.
std::vector<Cell> AllCells();

}  // namespace reentrancy

#endif
