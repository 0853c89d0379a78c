#ifndef TESTS_TOVA_HEADERFUNCTIONS_H
#define TESTS_TOVA_HEADERFUNCTIONS_H

#include <set>
#include <string>

#include "Support.h"

namespace tova_test {

// Every name before a "(" in a declaration, that is after the mark of an exported function.
inline std::set<std::string> FunctionsOfTheHeader() {
    const std::string header = ReadBytes(TOVA_HEADER);
    const std::string mark = "TOVA_API ";
    std::set<std::string> names;
    for (size_t at = header.find(mark); at != std::string::npos; at = header.find(mark, at + 1)) {
        // The definitions of the mark itself.
        if (header.compare(at + mark.size(), 2, "__") == 0) continue;
        const size_t end = header.find('(', at);
        const size_t start = header.find_last_of(" *", end) + 1;
        names.insert(header.substr(start, end - start));
    }
    return names;
}

}  // namespace tova_test

#endif
