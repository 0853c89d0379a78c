// InstanceTablePointers.h: pointers and records for the tests of the table of instances.
#ifndef VESSA_TESTS_UNIT_INSTANCETABLEPOINTERS_H
#define VESSA_TESTS_UNIT_INSTANCETABLEPOINTERS_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

#include "common/InstanceTable.h"

namespace vessa_test {

using Found = InstanceTable::Found;
using Record = InstanceTable::Record;

// Never followed: the table knows pointers by their value alone.
inline void* Pointer(size_t number) {
    return reinterpret_cast<void*>(uintptr_t{0x10000} + 16 * number);
}
inline Record RecordOf(size_t number) {
    return reinterpret_cast<Record>(uintptr_t{0x1000} + 2 * number);
}

// The table's hash, transcribed to find pointers that meet in it.
inline uint64_t HashOf(const void* instance) {
    const uint64_t value = reinterpret_cast<uintptr_t>(instance) * 0x9E3779B97F4A7C15u;
    return value ^ (value >> 32);
}
inline size_t StripeOf(const void* instance) {
    return static_cast<size_t>(HashOf(instance) >> 58);
}

// Pointers of one stripe, each of which is at home in one of the homes of 64 slots; with fewer
// slots these are the homes modulo the number of slots.
inline std::vector<void*> Meeting(size_t count, const std::set<size_t>& homes, size_t stripe = 5) {
    std::vector<void*> pointers;
    for (size_t number = 0; pointers.size() < count; ++number) {
        void* const pointer = Pointer(number);
        if (StripeOf(pointer) == stripe && homes.count(HashOf(pointer) % 64) != 0)
            pointers.push_back(pointer);
    }
    return pointers;
}
inline const std::set<size_t> kAnyHome = [] {
    std::set<size_t> homes;
    for (size_t home = 0; home < 64; ++home) homes.insert(home);
    return homes;
}();

inline void Ignore(Record) {}

inline bool Has(const InstanceTable& table, void* pointer, Record record) {
    const Found found = table.Find(pointer);
    return found.is_there && found.record == record;
}

}  // namespace vessa_test

#endif
