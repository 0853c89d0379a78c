// The list of sync points and the sources say the same, both ways, and no name is used twice.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file.good()) << path;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void AppendMatches(const std::string& text, const std::regex& pattern, Names& names) {
    for (std::sregex_iterator at(text.begin(), text.end(), pattern), end; at != end; ++at)
        names.push_back((*at)[1]);
}

// Every use of the macro, also one whose name is not as a name has to be.
Names PointsOf(const std::string& source) {
    Names names;
    AppendMatches(source, std::regex(R"(VESSA_SYNC_POINT\(\s*([^,\n]*),)"), names);
    return names;
}

Names PointsOfSources() {
    const fs::path root = VESSA_SOURCE_DIR;
    Names names;
    for (const char* const folder : {"src", "platform"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
            if (!entry.is_regular_file() || entry.path().filename() == "SyncPoint.h") continue;
            const Names found = PointsOf(ReadFile(entry.path()));
            names.insert(names.end(), found.begin(), found.end());
        }
    }
    return names;
}

// The first column of the tables, in the quotes of the macro.
Names PointsOfList(const std::string& list) {
    Names names;
    AppendMatches(list, std::regex(R"(\n\| `([^`]*)` \| [^|]+ \| [^|]+ \|)"), names);
    for (std::string& name : names) name = '"' + name + '"';
    return names;
}

Names PointsOfList() {
    return PointsOfList(ReadFile(fs::path(VESSA_SOURCE_DIR) / "docs/design/points.md"));
}

std::set<std::string> Twice(Names names) {
    std::sort(names.begin(), names.end());
    std::set<std::string> twice;
    for (auto at = names.begin(); (at = std::adjacent_find(at, names.end())) != names.end(); ++at)
        twice.insert(*at);
    return twice;
}

std::set<std::string> OnlyInFirst(const Names& first, const Names& second) {
    const std::set<std::string> known(second.begin(), second.end());
    std::set<std::string> missing;
    for (const std::string& name : first)
        if (known.count(name) == 0) missing.insert(name);
    return missing;
}

const std::set<std::string> kNone;

TEST(PointList, EachPointOfTheSourcesHasItsLine) {
    const Names sources = PointsOfSources();
    EXPECT_GT(sources.size(), 50u);
    EXPECT_EQ(OnlyInFirst(sources, PointsOfList()), kNone);
}

TEST(PointList, EachLineHasItsPointInTheSources) {
    EXPECT_EQ(OnlyInFirst(PointsOfList(), PointsOfSources()), kNone);
}

TEST(PointList, NoNameIsUsedTwice) {
    EXPECT_EQ(Twice(PointsOfSources()), kNone);
    EXPECT_EQ(Twice(PointsOfList()), kNone);
}

TEST(PointList, ANameSaysAreaObjectAndStep) {
    const std::regex form(R"("[a-z_]+\.[a-z_]+\.[a-z_]+")");
    for (const std::string& name : PointsOfSources())
        EXPECT_TRUE(std::regex_match(name, form)) << name;
}

// The comparison itself: a point without a line, a line without a point, one name in two places.
TEST(PointList, ADifferenceIsSeen) {
    const Names sources = PointsOf(
        "    VESSA_SYNC_POINT(\"a.b.c\", this);\n    if (x) VESSA_SYNC_POINT(\"a.b.d\", nullptr);\n"
        "    VESSA_SYNC_POINT(\"a.b.c\", &x);\n");
    const Names list = PointsOfList("\n| `a.b.c` | is there | - |\n| `a.b.e` | is there | - |\n");
    EXPECT_EQ(OnlyInFirst(sources, list), std::set<std::string>{"\"a.b.d\""});
    EXPECT_EQ(OnlyInFirst(list, sources), std::set<std::string>{"\"a.b.e\""});
    EXPECT_EQ(Twice(sources), std::set<std::string>{"\"a.b.c\""});
}

}  // namespace
