#include "vessa2/PluginListOrigin.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "unit/PathRules.h"

namespace {

TEST(PluginListOrigin, KeepsThePathAsItIsGivenAndTheFolderNormalised) {
    const PluginListOrigin origin("/a//b/./tarnet.xml");
    EXPECT_EQ(*origin.config_file_path(), "/a//b/./tarnet.xml");
    EXPECT_EQ(origin.folder(), "/a/b/");
    EXPECT_EQ(PluginListOrigin("tarnet.xml").folder(), "/");
}

TEST(PluginListOrigin, OnlyTwoPrefixesAreRelativeToTheList) {
    for (const char* const file : {"./", "./x", "../", "../x", ".//", "././x"})
        EXPECT_TRUE(PluginListOrigin::IsRelative(file)) << file;
    for (const char* const file : {"", ".", "..", "x", ".x", "..x", ".../x", "/./x", ".\\x"})
        EXPECT_FALSE(PluginListOrigin::IsRelative(file)) << file;
}

TEST(PluginListOrigin, ResolvesWithoutNormalising) {
    const PluginListOrigin origin("C:/app/tarnet/video/tarnet.xml");
    EXPECT_EQ(origin.Resolve("../codec/c.dll"), "C:/app/tarnet/codec/c.dll");
    EXPECT_EQ(origin.Resolve("./../../x.dll"), "C:/app/x.dll");
    EXPECT_EQ(origin.Resolve("./sub//./x.dll"), "C:/app/tarnet/video/sub//./x.dll");
    EXPECT_EQ(origin.Resolve("../../../../x.dll"), "");
}

TEST(PluginListOrigin, AFinishedPathIsGoodUntilTheNext) {
    PluginListOrigin origin("/a/tarnet.xml");
    const std::string& first = origin.Finish("./x");
    EXPECT_EQ(first, "/a/x");
    EXPECT_EQ(origin.Finish("y"), "y");
}

TEST(PluginListOrigin, FinishesEveryPathAsStepByStep) {
    std::mt19937 random(3);
    const auto path = [&random](size_t longest) {
        static const std::string kParts[] = {"a",  "b.c", "/",  "/",   ".",  "..",
                                             "\\", "C:",  "./", "../", "..."};
        std::string made;
        for (size_t parts = random() % (longest + 1); parts > 0; --parts)
            made += kParts[random() % (sizeof kParts / sizeof *kParts)];
        return made;
    };
    int relative = 0;
    for (int round = 0; round < 100000; ++round) {
        const std::string list = path(6) + "/tarnet.xml";
        const std::string file = (random() % 2 == 0 ? "./" : "") + path(6);
        if (file.empty()) continue;
        PluginListOrigin origin(list);
        ASSERT_EQ(origin.Finish(file), vessa_test::TranscribedModulePath(list, file))
            << list << " and " << file;
        relative += PluginListOrigin::IsRelative(file);
    }
    EXPECT_GT(relative, 30000);
}

}  // namespace
