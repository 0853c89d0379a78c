#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "../HeaderFunctions.h"

namespace {

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
    const std::set<std::string> declared = tova_test::FunctionsOfTheHeader();
    EXPECT_EQ(declared.size(), 24u);
    EXPECT_EQ(DefinedSymbols(TOVA_LIBRARY), declared);
}
