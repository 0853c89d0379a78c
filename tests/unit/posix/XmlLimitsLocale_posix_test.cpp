// Blanks beyond ASCII, which the parser takes from the host's locale. Here this program's own
// functions stand in for one: for the parser, which was compiled to look into the C library's
// table, and for the walk that follows it, which calls the function.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

#include "TestPlatform.h"
#include "common/XmlLimits.h"

#ifndef TIXML_USE_STL
#  define TIXML_USE_STL
#endif
#include <tinyxml.h>

namespace {

bool has_wide_blanks = false;
constexpr int kWideBlank = 0xA0;

}  // namespace

STAND_IN_C(int, isspace)(int c) noexcept {
    if (has_wide_blanks && c == kWideBlank) return 1;
    return c == ' ' || (c >= '\t' && c <= '\r') ? 1 : 0;
}

// The table begins at -128 and has the characters' kinds up to 255.
STAND_IN_C(const unsigned short**, __ctype_b_loc)() noexcept {
    static const auto real =
        vessa_test::FunctionBehind<const unsigned short**()>("__ctype_b_loc");
    if (!has_wide_blanks) return real();
    static unsigned short kinds[384];
    static const unsigned short* zero = nullptr;
    if (zero == nullptr) {
        std::copy_n(*real() - 128, 384, kinds);
        kinds[128 + kWideBlank] = kinds[128 + ' '];
        zero = kinds + 128;
    }
    return &zero;
}

namespace {

class XmlLimitsInALocale : public testing::Test {
  protected:
    XmlLimitsInALocale() { has_wide_blanks = true; }
    ~XmlLimitsInALocale() override { has_wide_blanks = false; }

    // The parser's own count of the first element's attributes; -1 for a text that it refuses.
    static int Parsed(const std::string& text) {
        TiXmlDocument document;
        document.Parse((text + std::string(8, '\0')).c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
        if (document.Error() || document.RootElement() == nullptr) return -1;
        int count = 0;
        for (const TiXmlAttribute* at = document.RootElement()->FirstAttribute(); at != nullptr;
             at = at->Next())
            ++count;
        return count;
    }
};

TEST_F(XmlLimitsInALocale, SkipsItsBlanksAsTheParserDoes) {
    for (const std::string text :
         {"\xA0<a \xA0x=\"1\" \xA0y='2' \xA0/>", "<a x=1\xA0y=2>\xA0t\xA0\xA0u\xA0</a>",
          "<?xml version=\"1.0\" \xA0 ?><a x=\"1\" y=\"\xA0\"/>"}) {
        const XmlExtent extent = MeasureXml(text);
        EXPECT_EQ(Parsed(text), 2) << text;
        EXPECT_EQ(extent.attributes, 2) << text;
        EXPECT_EQ(extent.depth, 1) << text;
    }
}

}  // namespace
