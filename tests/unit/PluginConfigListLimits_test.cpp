// List files that were not written in good faith, or were cut off.
#include <gtest/gtest.h>

#include <new>
#include <string>

#include "MemoryBlocks.h"
#include "TestPlatform.h"
#include "support/LogCapture.h"
#include "tova.h"
#include "vessa2/PluginConfigList.h"

namespace {

using vessa_test::LogCapture;
using vessa_test::UsableBytes;

constexpr int kNothing = 6;  // above every level

std::string Repeated(const std::string& text, int times) {
    std::string repeated;
    repeated.reserve(text.size() * static_cast<size_t>(times));
    for (int i = 0; i < times; ++i) repeated += text;
    return repeated;
}

// One plug-in beside so many levels of elements below the section.
std::string Nested(int levels) {
    return "<vessa><plugin fkey='a' file='f'/>" + Repeated("<e>", levels - 1) +
           Repeated("</e>", levels - 1) + "</vessa>";
}

std::string WithAttributes(int attributes) {
    std::string element = "<plugin fkey='a' file='f'";
    for (int i = 2; i < attributes; ++i) element += " a" + std::to_string(i) + "=''";
    return "<vessa>" + element + "/></vessa>";
}

void ExpectRefused(const std::string& xml, const std::string& reason) {
    LogCapture log;
    PluginConfigList list;
    list.push_back({});
    EXPECT_FALSE(list.ParseXmlString(xml));
    EXPECT_EQ(list.size(), 1u);
    EXPECT_TRUE(log.Is(
        {"2 param xml = " + xml, "5 xmlDoc Parse failed, err[true] " + reason + ", xml - " + xml}));
}

TEST(PluginConfigListLimits, AcceptsElements256LevelsDeep) {
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlString(Nested(256)));
    EXPECT_EQ(list.size(), 1u);
}

TEST(PluginConfigListLimits, RefusesElements257LevelsDeepWithAReason) {
    ExpectRefused(Nested(257), "Elements nested too deeply.");
}

TEST(PluginConfigListLimits, RefusesAMebibyteOfOpeningElements) {
    ExpectRefused("<vessa>" + Repeated("<e>", 349000), "Elements nested too deeply.");
}

TEST(PluginConfigListLimits, DoesNotCountWhatIsNoElement) {
    const std::string many = Repeated("<e>", 1000);
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlString("<vessa><!--" + many + "--><![CDATA[" + many +
                                    "]]><plugin fkey='a' file='f' note='" + many + "'/></vessa>"));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list.front().FindAttribute("note"), many);
}

TEST(PluginConfigListLimits, AcceptsManySiblings) {
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlString("<vessa>" + Repeated("<plugin fkey='a' file='f'/>", 10000) +
                                    "</vessa>"));
    EXPECT_EQ(list.size(), 10000u);
}

TEST(PluginConfigListLimits, Accepts512Attributes) {
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlString(WithAttributes(512)));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list.front().Attributes().size(), 512u);
}

TEST(PluginConfigListLimits, Refuses513AttributesWithAReason) {
    ExpectRefused(WithAttributes(513), "Too many attributes on one element.");
}

TEST(PluginConfigListLimits, RefusesAMebibyteOfAttributes) {
    ExpectRefused(WithAttributes(100000), "Too many attributes on one element.");
}

TEST(PluginConfigListLimits, CountsTheAttributesOfEveryElement) {
    std::string element = "<other";
    for (int i = 0; i < 513; ++i) element += " a" + std::to_string(i) + "=''";
    ExpectRefused("<vessa>" + element + "/></vessa>", "Too many attributes on one element.");
}

TEST(PluginConfigListLimits, ReadsNothingBehindATextThatIsCutInsideACharacter) {
    const LogCapture silence(kNothing);
    const std::string bom = "\xEF\xBB\xBF";
    const std::string declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
    const std::string tails[] = {"\xC3",         "\xE2", "\xE2\x82", "\xF0",    "\xF0\x9F",
                                 "\xF0\x9F\x98", "\xEF", "\xEF\xBB", "\xEF\xBF"};
    const std::string places[] = {"",
                                  "<vessa>",
                                  "<vessa>text",
                                  "<vessa><plugin fkey='a",
                                  "<vessa><plugin fkey=",
                                  "<vessa><plugin ",
                                  "<vessa><plug",
                                  "<vessa><!-- ",
                                  "<vessa><![CDATA[",
                                  "<vessa></ves",
                                  "<vessa>&",
                                  "<vessa><plugin fkey='a' file='f'/></vessa>"};
    for (const std::string& start : {bom, declaration, std::string()}) {
        for (const std::string& place : places) {
            for (const std::string& tail : tails) {
                std::string cut = start + place + tail;
                cut.shrink_to_fit();
                PluginConfigList list;
                const bool parsed = list.ParseXmlString(cut);
                // Only behind a whole section may the rest be anything.
                const bool whole = place.find("</vessa>") != std::string::npos;
                EXPECT_TRUE(whole || !parsed) << start << place << tail.size();
                EXPECT_TRUE(whole || list.empty()) << start << place << tail.size();
            }
        }
    }
}

// The parser comes ready built, so no sanitizer watches its reads. Here a read behind the text
// finds its end in what a former owner left in the memory, and would take the text for whole.
TEST(PluginConfigListLimits, DoesNotCompleteACutTextFromFormerMemory) {
    const LogCapture silence(kNothing);
    const std::string rest = "xx'/></vessa>";
    for (size_t length = 60; length < 92; ++length) {
        std::string cut = "\xEF\xBB\xBF<vessa><plugin fkey='a' file='";
        cut += std::string(length - 1 - cut.size(), 'f') + "\xF0";
        const std::string former = std::string(length + 1, 'x') + rest;
        for (const size_t room : {length + 1, former.size() + 1}) {
            void* const memory = operator new(room);
            // Volatile: nobody reads it before it is given back.
            volatile char* const bytes = static_cast<char*>(memory);
            const size_t usable = UsableBytes(memory);
            for (size_t i = 0; i < usable; ++i) bytes[i] = i < former.size() ? former[i] : '\0';
            operator delete(memory);
            PluginConfigList list;
            EXPECT_FALSE(list.ParseXmlString(cut)) << length;
        }
    }
}

TEST(PluginConfigListLimits, EndsForEveryTruncationOfAFile) {
    const LogCapture silence(kNothing);
    const std::string whole =
        "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?>\n<!-- \xC3\xA4 -->\n<vessa>\n <plugin "
        "fkey='\xE2\x82\xAC' file=\"./a&amp;b" MODULE_SUFFIX
        "\" delayload='true' x=y/>\n t<![CDATA[\xF0\x9F\x98"
        "\x80]]></vessa>";
    for (size_t length = 0; length < whole.size(); ++length) {
        PluginConfigList list;
        EXPECT_FALSE(list.ParseXmlString(whole.substr(0, length))) << length;
        EXPECT_TRUE(list.empty()) << length;
    }
    PluginConfigList list;
    ASSERT_TRUE(list.ParseXmlString(whole));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list.front().fkey(), "\xE2\x82\xAC");
}

// The accepted extremes fit the stack of the thread that scans.
TEST(PluginConfigListLimits, TheDeepestListFitsTheStackOfARuntimeThread) {
    struct Run {
        bool parsed = false;
        size_t items = 0;
    } run;
    const auto entry = [](void* argument) {
        auto* const state = static_cast<Run*>(argument);
        PluginConfigList list;
        state->parsed = list.ParseXmlString(Nested(256));
        state->items = list.size();
        return 0;
    };
    const tova_thread_t thread = TOVA_Thread_Create(entry, &run, 0, 0, 0, 0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(TOVA_Thread_Wait(thread), 0);
    EXPECT_TRUE(run.parsed);
    EXPECT_EQ(run.items, 1u);
}

}  // namespace
