#include "common/XmlLimits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "TestPlatform.h"
#include "ThreadStacks.h"
#include "support/Allocation.h"
#include "unit/BuiltXml.h"

using vessa_test::AllocationFailure;
using vessa_test::Build;
using vessa_test::Built;
using vessa_test::OnSmallStack;

namespace {

constexpr char kTooDeep[] = "Elements nested too deeply.";
constexpr char kTooMany[] = "Too many attributes on one element.";
constexpr char kTooManyNodes[] = "Too many nodes.";

std::string Repeated(const std::string& part, size_t times) {
    std::string text;
    text.reserve(part.size() * times);
    for (size_t i = 0; i < times; ++i) text += part;
    return text;
}

std::string Nested(size_t levels) {
    return Repeated("<a>", levels) + Repeated("</a>", levels);
}

std::string WithAttributes(size_t count) {
    std::string text = "<a";
    for (size_t i = 0; i < count; ++i) text += " n" + std::to_string(i) + "=\"v\"";
    return text + "/>";
}

void ExpectSameAsParser(const std::string& text) {
    const Built built = Build(text);
    const XmlExtent extent = MeasureXml(text);
    EXPECT_FALSE(built.error) << text;
    EXPECT_EQ(extent.depth, built.extent.depth) << text;
    EXPECT_EQ(extent.attributes, built.extent.attributes) << text;
    EXPECT_EQ(extent.nodes, built.extent.nodes) << text;
    EXPECT_EQ(CheckXmlLimits(text), nullptr) << text;
}

TEST(XmlLimits, AcceptsAnOrdinaryList) {
    ExpectSameAsParser(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!-- codecs -->\n"
        "<vessa>\n"
        "  <plugin fkey=\"codec\" file='./codec" MODULE_SUFFIX
        "' delayload=true/>\n"
        "  <plugin fkey=\"a&amp;b\" file=\"x &gt; y\"></plugin>\n"
        "</vessa>\n");
}

TEST(XmlLimits, TakesALetterThatBeginsAsAByteOrderMarkForALetter) {
    ExpectSameAsParser("\xEF\xBB\xBF<a>\xEF\xBF\xBE\xEF\xBF\xBF<b/>\xEF\xBC\xA1</a>");
}

TEST(XmlLimits, AnEmptyTextHasNoExtent) {
    for (const char* const text : {"", "   \n", "\xEF\xBB\xBF"}) {
        const XmlExtent extent = MeasureXml(text);
        EXPECT_EQ(extent.depth, 0);
        EXPECT_EQ(extent.attributes, 0);
        EXPECT_EQ(CheckXmlLimits(text), nullptr);
    }
}

TEST(XmlLimits, RefusesTheLevelBehindTheDeepest) {
    const std::string deepest = Nested(256);
    EXPECT_FALSE(Build(deepest).error);
    EXPECT_EQ(MeasureXml(deepest).depth, 256);
    EXPECT_EQ(CheckXmlLimits(deepest), nullptr);

    const std::string deeper = Nested(257);
    EXPECT_FALSE(Build(deeper).error);
    EXPECT_EQ(MeasureXml(deeper).depth, 257);
    EXPECT_STREQ(CheckXmlLimits(deeper), kTooDeep);
    EXPECT_STREQ(CheckXmlLimits(Repeated("<a>", 256) + "<b/>" + Repeated("</a>", 256)), kTooDeep);
}

TEST(XmlLimits, RefusesTheAttributeBehindTheLast) {
    const std::string most = WithAttributes(512);
    EXPECT_FALSE(Build(most).error);
    EXPECT_EQ(MeasureXml(most).attributes, 512);
    EXPECT_EQ(CheckXmlLimits(most), nullptr);

    const std::string more = WithAttributes(513);
    EXPECT_FALSE(Build(more).error);
    EXPECT_EQ(MeasureXml(more).attributes, 513);
    EXPECT_STREQ(CheckXmlLimits(more), kTooMany);
}

// Each kind of node in as few bytes as it needs. With the section they are one more.
TEST(XmlLimits, RefusesTheNodeBehindTheLast) {
    const std::pair<std::string, size_t> kinds[] = {{"<e/>", 1},    {"x<e/>", 2},   {"<!>", 1},
                                                    {"<!---->", 1}, {"<?xml?>", 1}, {"<e></e>", 1}};
    for (const auto& [unit, nodes] : kinds) {
        const size_t units = (size_t{kMaxXmlNodes} - 1) / nodes;
        const std::string most = "<r>" + Repeated(unit, units) + Repeated("<e/>", nodes - 1);
        EXPECT_EQ(MeasureXml(most + "</r>").nodes, kMaxXmlNodes) << unit;
        EXPECT_EQ(CheckXmlLimits(most + "</r>"), nullptr) << unit;
        EXPECT_STREQ(CheckXmlLimits(most + "<e/></r>"), kTooManyNodes) << unit;
        EXPECT_STREQ(CheckXmlLimits(most + "x</r>"), kTooManyNodes) << unit;
    }
    const std::string many = Repeated("<![CDATA[]]>", kMaxXmlNodes);
    EXPECT_STREQ(CheckXmlLimits("<r>" + many + "</r>"), kTooManyNodes);
    EXPECT_EQ(CheckXmlLimits("<r><!--" + many + "--></r>"), nullptr);
}

TEST(XmlLimits, CountsTheNodesThatTheParserMakes) {
    ExpectSameAsParser(
        "<?xml version='1.0'?><!DOCTYPE r><r>text<e/> <!-- c -->\n<![CDATA[ d ]]> more "
        "<e>x</e><?y?></r><!-- e -->");
    // Blanks make a text only where they are not written as such.
    EXPECT_EQ(MeasureXml("<r>&#32;</r>").nodes, 2);
    EXPECT_EQ(Build("<r>&#32;</r>").extent.nodes, 1);
}

TEST(XmlLimits, BothLimitsMayBeReachedTogether) {
    std::string most = WithAttributes(512);
    most.replace(most.size() - 2, 2, ">");
    ExpectSameAsParser(Repeated("<a>", 255) + most + "</a>" + Repeated("</a>", 255));
}

TEST(XmlLimits, CountsTheAttributesOfEachElementByItself) {
    std::string text = "<r>";
    for (int i = 0; i < 20; ++i) text += WithAttributes(400);
    ExpectSameAsParser(text + "</r>");
}

TEST(XmlLimits, SiblingsAddNoDepth) {
    ExpectSameAsParser("<r>" + Repeated("<a><b/></a>", 5000) + "</r>");
}

TEST(XmlLimits, WhatOnlyLooksLikeAnElementDoesNotCount) {
    ExpectSameAsParser("<!-- " + Nested(300) + " --><r/>");
    ExpectSameAsParser("<r><![CDATA[" + Nested(300) + "]]></r>");
    ExpectSameAsParser("<r a=\"" + Repeated("<a>", 300) + "\"/>");
    ExpectSameAsParser("<r a='" + Repeated(" b=\"1\"", 600) + "'/>");
    ExpectSameAsParser("<r>" + Repeated(" b=\"1\"", 600) + "</r>");
    ExpectSameAsParser("<r>" + Repeated("<!x>", 300) + "</r>");
    ExpectSameAsParser("<r>" + Repeated("<?y?>", 300) + "</r>");
}

TEST(XmlLimits, StopsWhereTheParserStops) {
    // Behind text outside of every element the parser looks at nothing.
    EXPECT_EQ(MeasureXml("<r/>text" + Nested(300)).depth, 1);
    EXPECT_EQ(CheckXmlLimits("text" + Nested(300)), nullptr);
    EXPECT_TRUE(Build("text" + Nested(300)).error);
    EXPECT_FALSE(Build("<r/>text" + Nested(300)).error);
}

TEST(XmlLimits, KeepsCountingInATextThatTheParserRefusesOnlyLater) {
    EXPECT_STREQ(CheckXmlLimits(Repeated("<a>", 257)), kTooDeep);
    EXPECT_STREQ(CheckXmlLimits(Nested(300) + "<broken"), kTooDeep);
    std::string cut = WithAttributes(513);
    cut.resize(cut.size() - 2);
    EXPECT_STREQ(CheckXmlLimits(cut), kTooMany);
}

TEST(XmlLimits, HostileTextsAreRefusedWithoutRecursionOverThem) {
    const std::string deep = Repeated("<a>", 30000);
    const std::string wide = WithAttributes(100000);
    const std::string deepest = Repeated("<a>", 349525);
    const char* deep_refusal = nullptr;
    const char* wide_refusal = nullptr;
    const char* deepest_refusal = nullptr;
    OnSmallStack([&] {
        deep_refusal = CheckXmlLimits(deep);
        wide_refusal = CheckXmlLimits(wide);
        deepest_refusal = CheckXmlLimits(deepest);
    });
    EXPECT_STREQ(deep_refusal, kTooDeep);
    EXPECT_STREQ(wide_refusal, kTooMany);
    EXPECT_STREQ(deepest_refusal, kTooDeep);
}

TEST(XmlLimits, AnyLargeTextTakesOnePass) {
    const std::vector<std::string> parts = {"<a>",      "<a/>",
                                            "<",        "</",
                                            ">",        "a ",
                                            " ",        "<a ",
                                            "<a b='",   "&",
                                            "&#",       "&#1",
                                            "&#x",      "&#49;",
                                            "&#x31",    "&#;",
                                            "&amp;",    "&#1;",
                                            "<!--",     "<!-- >",
                                            "<![CDA",   "<![CDATA[",
                                            "]]>",      "<?xml ",
                                            "<?xml?>",  "<?xml encoding='",
                                            "<!",       "<?",
                                            "=",        "\"",
                                            "'",        "a=1 ",
                                            "a='1'",    "\xEF\xBB\xBF",
                                            "\xEF",     "\xC3",
                                            "\xE2\x82", "<a></a>",
                                            "<b>x</b>", "<a b=1/>",
                                            "<a\n"};
    // Before each of them something that brings the walk to where such a part counts; inside an
    // element it goes furthest.
    const std::vector<std::string> leads = {"<r>",   "", "<r a=\"", "<r ", "\xEF\xBB\xBF<r>",
                                            "<?xml "};
    for (const std::string& lead : leads) {
        const size_t bytes = size_t{1} << (lead == leads[0] ? 19 : 16);
        for (const std::string& part : parts) {
            const std::string text = lead + Repeated(part, (bytes - lead.size()) / part.size());
            const XmlExtent extent = MeasureXml(text);
            EXPECT_LE(extent.depth, 257);
            EXPECT_LE(extent.attributes, 513);
        }
    }
}

TEST(XmlLimits, NeedsLittleMemoryForAHostileText) {
    const std::string text = Repeated("<a>", 30000);
    long allocations = -1;
    {
        AllocationFailure count(0);
        MeasureXml(text);
        allocations = count.Count();
    }
    // The open elements alone, at most 257 of them.
    EXPECT_LE(allocations, 12);
}

// Random texts of what matters to a parser, in the order in which it matters or in none.
class RandomXml {
  public:
    explicit RandomXml(unsigned seed) : random_(seed) {}

    std::string Tokens() {
        static const std::vector<std::string> kTokens = {"<",
                                                         ">",
                                                         "</",
                                                         "/>",
                                                         "/",
                                                         "<a",
                                                         "<b ",
                                                         "<a>",
                                                         "</a>",
                                                         "<b>",
                                                         "</b>",
                                                         "<a/>",
                                                         "<ab:c.d-_",
                                                         "a",
                                                         "b",
                                                         "=",
                                                         "\"",
                                                         "'",
                                                         " ",
                                                         "\n",
                                                         "x='1'",
                                                         " y=\"2\"",
                                                         " z=3",
                                                         " x=\"1\"",
                                                         "<!--",
                                                         "-->",
                                                         "--",
                                                         "<![CDATA[",
                                                         "]]>",
                                                         "<?xml",
                                                         "?>",
                                                         "<?xml?>",
                                                         "<?XML",
                                                         " encoding=\"UTF-8\"",
                                                         " encoding=''",
                                                         " encoding='latin1'",
                                                         " version='1.0'",
                                                         " standalone=yes",
                                                         "<!DOCTYPE x>",
                                                         "<!",
                                                         "<?y",
                                                         "&amp;",
                                                         "&lt;",
                                                         "&#65;",
                                                         "&#x41;",
                                                         "&#",
                                                         "&#x",
                                                         ";",
                                                         "&",
                                                         "&foo;",
                                                         "&#60;",
                                                         "&#0;",
                                                         "\xEF\xBB\xBF",
                                                         "\xC3\xA9",
                                                         "\xE2\x82",
                                                         "\xEF",
                                                         "\xEF\xBF\xBE",
                                                         "\xF0",
                                                         "\x7F",
                                                         "\xFF",
                                                         "1",
                                                         "text",
                                                         "<_",
                                                         "<1>",
                                                         "< a>",
                                                         "</ a>",
                                                         "</a >",
                                                         "</ab>",
                                                         "\t",
                                                         "[",
                                                         "]"};
        std::string text;
        for (size_t length = 1 + random_() % 16; length > 0; --length)
            text += kTokens[random_() % kTokens.size()];
        return text;
    }

    // A text that mostly is well formed, and one mistake in every second one.
    std::string Document() {
        std::string text;
        if (random_() % 4 == 0) text += "\xEF\xBB\xBF";
        if (random_() % 3 == 0) text += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
        for (size_t top = 1 + random_() % 3; top > 0; --top) Element(text, 0);
        if (random_() % 2 == 0) Damage(text);
        return text;
    }

  private:
    void Element(std::string& text, int depth) {
        const std::string name = random_() % 2 == 0 ? "a" : "ab";
        text += "<" + name;
        for (size_t count = random_() % 4; count > 0; --count) {
            const char* const quote = random_() % 2 == 0 ? "\"" : "'";
            text += " k" + std::to_string(count) + "=" + quote + Value() + quote;
        }
        if (random_() % 3 == 0) {
            text += "/>";
            return;
        }
        text += ">";
        for (size_t count = random_() % 4; count > 0 && depth < 6; --count) {
            if (random_() % 3 == 0)
                text += Value();
            else if (random_() % 5 == 0)
                text += "<!--" + Value() + "--><![CDATA[" + Value() + "<a>]]>";
            else
                Element(text, depth + 1);
        }
        text += "</" + name + (random_() % 8 == 0 ? " >" : ">");
    }
    std::string Value() {
        static const std::vector<std::string> kValues = {
            "",  "v", "a b", "&amp;",     "&#65;x", "\xC3\xA9",
            "/", ">", "&",   "&lt;a&gt;", "=",      "\xE2\x82\xAC"};
        return kValues[random_() % kValues.size()];
    }
    void Damage(std::string& text) {
        static const std::string kBytes = "<>/\"'= &;#x!-[]?a\xC3\xEF\n";
        const size_t at = random_() % text.size();
        switch (random_() % 3) {
            case 0:
                text.erase(at, 1 + random_() % 3);
                break;
            case 1:
                text.insert(at, 1, kBytes[random_() % kBytes.size()]);
                break;
            default:
                text.resize(at);
                break;
        }
    }

    std::mt19937 random_;
};

std::string Printable(const std::string& text) {
    static const char* const kDigits = "0123456789ABCDEF";
    std::string printable;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 32 && byte < 127) {
            printable += c;
        } else {
            printable += "\\x";
            printable += kDigits[byte >> 4];
            printable += kDigits[byte & 15];
        }
    }
    return printable;
}

struct Comparison {
    int below = 0;
    int different = 0;
    int accepted = 0;

    void Add(const std::string& text) {
        const Built built = Build(text);
        const XmlExtent extent = MeasureXml(text);
        const bool lower = extent.depth < built.extent.depth ||
                           extent.attributes < built.extent.attributes ||
                           extent.nodes < built.extent.nodes;
        const bool other = !built.error && (extent.depth != built.extent.depth ||
                                            extent.attributes != built.extent.attributes);
        if (lower) ++below;
        if (other) ++different;
        if (!built.error) ++accepted;
        if ((lower || other) && below + different <= 20)
            ADD_FAILURE() << Printable(text) << ": measured " << extent.depth << " and "
                          << extent.attributes << ", built " << built.extent.depth << " and "
                          << built.extent.attributes << (built.error ? " with an error" : "");
    }
};

TEST(XmlLimits, AgreesWithTheParserOnRandomTokens) {
    RandomXml random(20240607);
    Comparison comparison;
    for (int round = 0; round < 200000; ++round) comparison.Add(random.Tokens());
    EXPECT_EQ(comparison.below, 0);
    EXPECT_EQ(comparison.different, 0);
    // Not a comparison of refusals only.
    EXPECT_GT(comparison.accepted, 1000);
}

TEST(XmlLimits, AgreesWithTheParserOnRandomDocuments) {
    RandomXml random(19991231);
    Comparison comparison;
    for (int round = 0; round < 40000; ++round) comparison.Add(random.Document());
    EXPECT_EQ(comparison.below, 0);
    EXPECT_EQ(comparison.different, 0);
    EXPECT_GT(comparison.accepted, 15000);
}

}  // namespace
