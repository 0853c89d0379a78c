#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "../Support.h"

namespace {

// Every name before a "(" in a declaration, that is after the mark of an exported function.
std::set<std::string> FunctionsOfTheHeader() {
    const std::string header = tova_test::ReadBytes(TOVA_HEADER);
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

std::set<std::string> DefinedSymbols(const char* library) {
    const std::string command = std::string(NM_PROGRAM) + " -D --defined-only " + library;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::string output;
    char buffer[4096];
    size_t got = 0;
    while ((got = fread(buffer, 1, sizeof buffer, pipe.get())) > 0) output.append(buffer, got);
    std::set<std::string> names;
    std::istringstream lines(output);
    for (std::string address, type, name; lines >> address >> type >> name;) {
        EXPECT_EQ(type, "T") << name;
        names.insert(name);
    }
    return names;
}

}  // namespace

TEST(Exports, AreTheFunctionsOfTheHeaderAndNothingElse) {
    const std::set<std::string> declared = FunctionsOfTheHeader();
    EXPECT_EQ(declared.size(), 24u);
    EXPECT_EQ(DefinedSymbols(TOVA_LIBRARY), declared);
}
