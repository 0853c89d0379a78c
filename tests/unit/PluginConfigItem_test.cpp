#include "vessa2/PluginConfigItem.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>

#include "support/Allocation.h"
#include "unit/ConfigItems.h"

namespace {

using vessa_test::AllocationFailure;
using vessa_test::AttributeMap;
using vessa_test::AttributesOf;
using vessa_test::ItemFields;
using vessa_test::LiveBlocks;

ItemFields Example() {
    return {"video.decoder",
            "/a/path/that/is/longer/than/a/string/holds/itself.so",
            true,
            true,
            "/a/path/of/a/list/file/tarnet.xml",
            {{"fkey", " v "}, {"vendor", ""}}};
}

TEST(PluginConfigItem, OfNothingIsCopiedAsNothing) {
    const PluginConfigItem nothing;
    PluginConfigItem copy(nothing);
    PluginConfigItem item = vessa_test::ItemFields{"k", "/m", true, false, "/list", {}}.Make();
    copy = item;
    EXPECT_EQ(copy.fkey(), "k");
    copy = nothing;
    EXPECT_EQ(item.fkey(), "k");
}

TEST(PluginConfigItem, HoldsWhatItWasMadeFrom) {
    const PluginConfigItem item = Example().Make();
    EXPECT_EQ(item.fkey(), "video.decoder");
    EXPECT_EQ(item.file_path(), Example().file_path);
    EXPECT_EQ(item.config_file_path(), Example().config_file_path);
    EXPECT_TRUE(item.delay_load());
    EXPECT_TRUE(item.load_fkeys());
    EXPECT_EQ(AttributesOf(item), Example().attributes);
}

TEST(PluginConfigItem, FindsAttributesByTheirWholeName) {
    const PluginConfigItem item =
        ItemFields{"k", "f", false, false, "", {{"a", "1"}, {"ab", "2"}, {"b", ""}}}.Make();
    EXPECT_EQ(item.FindAttribute("a"), "1");
    EXPECT_EQ(item.FindAttribute("ab"), "2");
    EXPECT_EQ(item.FindAttribute("b"), "");
    EXPECT_NE(item.FindAttribute("b").data(), nullptr);
    EXPECT_EQ(item.FindAttribute("1").data(), nullptr);
    EXPECT_EQ(item.FindAttribute("").data(), nullptr);
    // As the exports copy them.
    EXPECT_EQ(item.FindAttribute("ab").data()[1], '\0');
}

TEST(PluginConfigItem, MayHaveNoAttributesAndNoListFile) {
    PluginDeclaration declaration;
    declaration.fkey = "k";
    const PluginConfigItem item(declaration);
    EXPECT_TRUE(item.Attributes().empty());
    EXPECT_EQ(item.FindAttribute("k").data(), nullptr);
    EXPECT_EQ(item.config_file_path(), "");
}

TEST(PluginConfigItem, IsOneBlockInAllItsCopiesAndGoesWithTheLast) {
    const long before = LiveBlocks();
    {
        PluginConfigItem last;
        {
            const PluginConfigItem item = Example().Make();
            const long one = LiveBlocks();
            PluginConfigItem copy = item;
            const PluginConfigItem moved = std::move(copy);
            copy = moved;
            const PluginConfigItem& same = copy;
            copy = same;
            last = copy;
            EXPECT_EQ(LiveBlocks(), one);
            EXPECT_EQ(&last.fkey(), &item.fkey());
        }
        EXPECT_EQ(last.fkey(), "video.decoder");
        EXPECT_EQ(AttributesOf(last), Example().attributes);
    }
    EXPECT_EQ(LiveBlocks(), before);
}

TEST(PluginConfigItem, UnderAnotherFkeyIsTheSameAndAnnouncesNothing) {
    const PluginConfigItem item = Example().Make();
    const PluginConfigItem other = item.WithFkey("other");
    EXPECT_EQ(other.fkey(), "other");
    EXPECT_FALSE(other.load_fkeys());
    EXPECT_TRUE(other.delay_load());
    EXPECT_EQ(other.file_path(), item.file_path());
    EXPECT_EQ(other.config_file_path(), item.config_file_path());
    EXPECT_EQ(AttributesOf(other), AttributesOf(item));
    EXPECT_EQ(item.fkey(), "video.decoder");
}

TEST(PluginConfigItem, LeavesNothingWhenMemoryRunsOut) {
    const PluginConfigItem item = Example().Make();
    for (long nth = 1;; ++nth) {
        const long before = LiveBlocks();
        long failed = 0;
        {
            AllocationFailure failure(nth);
            try {
                const PluginConfigItem other = item.WithFkey("a key of more than fifteen bytes");
            } catch (const std::bad_alloc&) {
            }
            failed = failure.Failed();
        }
        EXPECT_EQ(LiveBlocks(), before) << nth;
        if (failed == 0) {
            EXPECT_GT(nth, 3);
            break;
        }
    }
}

int Sign(int value) {
    return value < 0 ? -1 : value > 0;
}

TEST(RegistrationKey, ComparesAsItsPartsInOneText) {
    std::mt19937 random(11);
    const auto text = [&random](size_t longest) {
        static const std::string kBytes = "a_/b\xC3^`";
        std::string made;
        for (size_t length = random() % (longest + 1); length > 0; --length)
            made += kBytes[random() % kBytes.size()];
        return made;
    };
    int equal = 0;
    for (int round = 0; round < 50000; ++round) {
        const ItemFields left{text(4), "f", false, false, text(3), {}};
        const ItemFields right{text(4), "f", false, false, text(3), {}};
        const std::string left_key = left.fkey + "_" + left.config_file_path;
        const std::string right_key = right.fkey + "_" + right.config_file_path;
        const int expected = Sign(left_key.compare(right_key));
        ASSERT_EQ(Sign(CompareRegistrationKeys(left.Make(), right.Make())), expected)
            << left_key << " and " << right_key;
        if (expected == 0 && left.fkey != right.fkey) ++equal;
    }
    // Also keys whose parts meet at different places.
    EXPECT_GT(equal, 0);
}

TEST(RegistrationKey, IsTheSameForCopies) {
    const PluginConfigItem item = Example().Make();
    const PluginConfigItem copy = item;
    EXPECT_EQ(CompareRegistrationKeys(item, copy), 0);
    EXPECT_EQ(CompareRegistrationKeys(item, Example().Make()), 0);
}

}  // namespace
