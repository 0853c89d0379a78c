// The documents say what is so: their code is the code that is built, their table is the
// header's, their links lead somewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "common/MessageFormat.h"
#include "vessa/vessa.h"

namespace {

namespace fs = std::filesystem;

std::string ReadSource(const std::string& path) {
    std::ifstream file(std::string(VESSA_SOURCE_DIR) + "/" + path);
    EXPECT_TRUE(file.good()) << path;
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The fenced blocks of a language, in order.
std::vector<std::string> CodeBlocks(const std::string& document, const std::string& language) {
    std::vector<std::string> blocks;
    const std::string opening = "```" + language + "\n";
    for (size_t at = document.find(opening); at != std::string::npos;
         at = document.find(opening, at)) {
        at += opening.size();
        const size_t end = document.find("```", at);
        blocks.push_back(document.substr(at, end - at));
        at = end + 3;
    }
    return blocks;
}

std::vector<fs::path> Documents() {
    const fs::path root = VESSA_SOURCE_DIR;
    std::vector<fs::path> documents;
    for (const auto& entry : fs::directory_iterator(root))
        if (entry.path().extension() == ".md") documents.push_back(entry.path());
    for (const char* const folder : {"docs", "examples"})
        for (const auto& entry : fs::recursive_directory_iterator(root / folder))
            if (entry.path().extension() == ".md") documents.push_back(entry.path());
    return documents;
}

std::string ResultRow(const char* name, int number, const char* meaning) {
    char hex[17];
    std::snprintf(hex, sizeof hex, "%" PRIX64, static_cast<uint64_t>(int64_t{number}));
    return "| `" + std::string(name) + "` | " + std::to_string(number) + " | " + hex + " | " +
           meaning + " |\n";
}

}  // namespace

TEST(Readme, ShowsTheHostAndThePluginThatAreBuilt) {
    const std::vector<std::string> blocks = CodeBlocks(ReadSource("README.md"), "c");
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0], ReadSource("examples/readme/host.c"));
    EXPECT_EQ(blocks[1], ReadSource("examples/readme/plugin.c"));
}

TEST(Readme, ShowsAHostInFifteenLinesAndAPluginInTwenty) {
    const std::vector<std::string> blocks = CodeBlocks(ReadSource("README.md"), "c");
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_LE(std::count(blocks[0].begin(), blocks[0].end(), '\n'), 15);
    EXPECT_LE(std::count(blocks[1].begin(), blocks[1].end(), '\n'), 20);
}

TEST(PluginAuthors, AreShownNothingButTheExamplesOwnCode) {
    const std::string document = ReadSource("docs/plugin-authors.md");
    std::vector<std::string> blocks = CodeBlocks(document, "c");
    for (std::string& block : CodeBlocks(document, "cpp")) blocks.push_back(std::move(block));
    EXPECT_GE(blocks.size(), 4u);
    std::string examples;
    const fs::path folder = fs::path(VESSA_SOURCE_DIR) / "examples";
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const fs::path suffix = entry.path().extension();
        if (suffix != ".c" && suffix != ".cpp" && suffix != ".h") continue;
        std::ifstream file(entry.path());
        std::stringstream text;
        text << file.rdbuf();
        examples += "\n" + text.str();
    }
    for (const std::string& block : blocks)
        EXPECT_NE(examples.find("\n" + block), std::string::npos) << block;
}

TEST(Results, AreDocumentedAsTheHeaderListsThem) {
    std::string table;
#define VESSA_TEST_ROW(name, number, meaning) table += ResultRow(#name, number, meaning);
    VESSA_RESULT_LIST(VESSA_TEST_ROW)
#undef VESSA_TEST_ROW
    const std::string document = ReadSource("docs/results.md");
    const size_t rows = document.find("| `VESSA_OK`");
    ASSERT_NE(rows, std::string::npos);
    EXPECT_EQ(document.substr(rows), table);
}

TEST(Results, HaveTheHexadecimalFormThatTheLogShows) {
    const int conflict = VESSA_ERR_PLUGIN_CONFLICT;
    const LogArg args[] = {LogArg(conflict)};
    EXPECT_EQ(FormatMessage(nullptr, "{0}/{0:X}", args, 1), "-2147483635/FFFFFFFF8000000D");
    EXPECT_NE(ReadSource("docs/results.md").find("| -2147483635 | FFFFFFFF8000000D |"),
              std::string::npos);
}

TEST(Documents, LinkOnlyToWhatIsThere) {
    const std::regex link(R"(\]\(([^)#:]+)(#[^)]*)?\))");
    int links = 0;
    for (const fs::path& document : Documents()) {
        std::ifstream file(document);
        std::stringstream text;
        text << file.rdbuf();
        const std::string content = text.str();
        for (std::sregex_iterator found(content.begin(), content.end(), link), end; found != end;
             ++found, ++links) {
            const fs::path target = document.parent_path() / (*found)[1].str();
            EXPECT_TRUE(fs::exists(target)) << document << " links to " << (*found)[1];
        }
    }
    EXPECT_GT(links, 10);
}
