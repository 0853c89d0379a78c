// Lists.h: plug-in roots with list files for the rows that start and scan.
#ifndef VESSA_BENCH_LISTS_H
#define VESSA_BENCH_LISTS_H

#include <cstddef>
#include <string>
#include <utility>

namespace bench {

// How the plug-ins of a root are declared:
enum class Shape {
    kOneFile,  // in one list file; a list must be below 1 MiB, so one for each 10,000
    kEach,     // each in a list file of its own, in a folder of its own, all side by side
    kDeep,     // the same, ten folders in each folder
};
const char* NameOf(Shape shape);

// A whole list with the keys first, first + 1, … Each plug-in is delay-loaded and has a module of
// its own, unless one module is named for all.
std::string ListText(size_t first, size_t count, const std::string& module = std::string());

// A root with that many plug-ins. It is kept, and its modules do not exist.
std::string RootWith(Shape shape, size_t plugins);

// The folders and lists of kEach or kDeep in a root that is there.
void WriteFolders(const std::string& root, Shape shape, size_t plugins);

// The same as RootWith beside it, for a benchmark that changes it.
std::string ChangingRootWith(Shape shape, size_t plugins);

// Reads everything below a root, so that no row pays for what the system has not read yet.
void WarmUp(const std::string& root);

// Writes the lists of kOneFile for one module.
void WriteListsFor(const std::string& root, size_t plugins, const std::string& module);

// Calls add(shape, plugins, iterations) for each row of a start.
template <class Add>
void ForEachStart(Add add) {
    for (const Shape shape : {Shape::kOneFile, Shape::kEach, Shape::kDeep}) {
        for (const auto& size : {std::pair<int, int>{1000, 20}, {10000, 3}, {100000, 1}})
            add(shape, size.first, size.second);
    }
}

inline std::string StartRow(Shape shape) {
    return std::string("start/") + NameOf(shape);
}

}  // namespace bench

#endif
