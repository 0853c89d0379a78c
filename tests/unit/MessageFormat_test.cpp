#include "common/MessageFormat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "skrib.h"
#include "support/Allocation.h"
#include "support/LogCapture.h"
#include "unit/MessageRules.h"

using vessa_test::AllocationFailure;
using vessa_test::LogCapture;
using vessa_test::LogRecord;

namespace {

// A type with a text form of its own, as a list of declared plug-ins has.
struct Listed {
    std::string text;
    mutable int asked = 0;
    std::function<void()> when_asked;
};
void AppendLogText(std::string& output, const Listed& value) {
    ++value.asked;
    if (value.when_asked) value.when_asked();
    output += value.text;
}

template <class... Args>
std::string Format(const std::string& format, const Args&... args) {
    const LogArg list[] = {LogArg(args)...};
    return FormatMessage(nullptr, format.c_str(), list, sizeof...(args));
}

// What the specs of the table give, in this order.
const std::vector<std::string> kSpecs = {"", "x", "X", "t", "T", "q", "xx", "d4", " ", "%d", ":"};

template <class Arg>
void ExpectRenderings(const Arg& value, const std::string& plain, const std::string& lower,
                      const std::string& upper) {
    for (const std::string& spec : kSpecs) {
        const std::string expected = spec.empty()                 ? plain
                                     : spec == "x"                ? lower
                                     : spec == "X"                ? upper
                                     : spec == "t" || spec == "T" ? "(parse error)"
                                                                  : spec;
        EXPECT_EQ(Format("{0:" + spec + "}", value), expected) << spec;
    }
    EXPECT_EQ(Format("{0}", value), plain);
}

int SomeFunction(const char*) {
    return 0;
}

const std::string kParseError = "(parse error)";

TEST(LogArg, RendersASignedNumber) {
    ExpectRenderings(int32_t{-5}, "-5", "fffffffffffffffb", "FFFFFFFFFFFFFFFB");
    ExpectRenderings(int32_t{-1}, "-1", "ffffffffffffffff", "FFFFFFFFFFFFFFFF");
    ExpectRenderings(int32_t{0}, "0", "0", "0");
    ExpectRenderings(int32_t{30000}, "30000", "7530", "7530");
    ExpectRenderings(std::numeric_limits<int32_t>::min(), "-2147483648", "ffffffff80000000",
                     "FFFFFFFF80000000");
    ExpectRenderings(std::numeric_limits<int32_t>::max(), "2147483647", "7fffffff", "7FFFFFFF");
}

TEST(LogArg, RendersAnUnsignedNumber) {
    ExpectRenderings(uint32_t{0}, "0", "0", "0");
    ExpectRenderings(uint32_t{171}, "171", "ab", "AB");
    ExpectRenderings(std::numeric_limits<uint32_t>::max(), "4294967295", "ffffffff", "FFFFFFFF");
}

TEST(LogArg, RendersABool) {
    ExpectRenderings(true, "true", kParseError, kParseError);
    ExpectRenderings(false, "false", kParseError, kParseError);
}

TEST(LogArg, RendersAPointer) {
    void* const address = reinterpret_cast<void*>(uintptr_t{0x1234ABCD});
    ExpectRenderings(address, "000000001234ABCD", "1234abcd", "1234ABCD");
    ExpectRenderings(static_cast<const void*>(address), "000000001234ABCD", "1234abcd", "1234ABCD");
    void* const highest = reinterpret_cast<void*>(~uintptr_t{0});
    ExpectRenderings(highest, "FFFFFFFFFFFFFFFF", "ffffffffffffffff", "FFFFFFFFFFFFFFFF");
}

TEST(LogArg, RendersTheAddressOfAnOutParameter) {
    int number = 0;
    void* object = nullptr;
    std::string expected;
    AppendAddress(expected, reinterpret_cast<uintptr_t>(&number));
    EXPECT_EQ(Format("{0}", &number), expected);
    expected.clear();
    AppendAddress(expected, reinterpret_cast<uintptr_t>(&object));
    EXPECT_EQ(Format("{0}", &object), expected);
    EXPECT_EQ(expected.size(), 16U);
}

TEST(LogArg, RendersAFunctionPointer) {
    std::string expected;
    AppendAddress(expected, reinterpret_cast<uintptr_t>(&SomeFunction));
    EXPECT_EQ(Format("{0}", &SomeFunction), expected);
    int (*const none)(const char*) = nullptr;
    ExpectRenderings(none, "0000000000000000", "0", "0");
}

TEST(LogArg, RendersNullPointers) {
    ExpectRenderings(static_cast<void*>(nullptr), "0000000000000000", "0", "0");
    ExpectRenderings(static_cast<int**>(nullptr), "0000000000000000", "0", "0");
    ExpectRenderings(static_cast<const char*>(nullptr), "", "0", "0");
}

TEST(LogArg, RendersAText) {
    const char* const text = "fkey";
    char lower[32];
    char upper[32];
    std::snprintf(lower, sizeof lower, "%llx",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(text)));
    std::snprintf(upper, sizeof upper, "%llX",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(text)));
    ExpectRenderings(text, "fkey", lower, upper);
    ExpectRenderings("", "", Format("{0:x}", ""), Format("{0:X}", ""));
    const char buffer[256] = "in an array";
    EXPECT_EQ(Format("{0}", buffer), "in an array");
}

TEST(LogArg, RendersAString) {
    ExpectRenderings(std::string("a path"), "a path", kParseError, kParseError);
    ExpectRenderings(std::string(), "", kParseError, kParseError);
}

TEST(LogArg, RendersAListFromItsTextForm) {
    using List = std::vector<std::string>;
    ExpectRenderings(List{"a", "b", "c"}, "[a, b, c]", kParseError, kParseError);
    ExpectRenderings(List{"one"}, "[one]", kParseError, kParseError);
    ExpectRenderings(List{}, "[]", kParseError, kParseError);
    Listed own;
    own.text = "own form";
    ExpectRenderings(own, "own form", kParseError, kParseError);
}

TEST(LogArg, AppendsToWhatIsThere) {
    std::string output = "before ";
    LogArg(7).Render("", output);
    LogArg(true).Render("", output);
    EXPECT_EQ(output, "before 7true");
}

TEST(NextPlaceholder, ANullOrEmptyTextIsExhausted) {
    for (const char* const text : {static_cast<const char*>(nullptr), ""}) {
        std::string output = "kept";
        std::string spec = "stale";
        int32_t index = 5;
        EXPECT_EQ(NextPlaceholder(text, output, index, spec), nullptr);
        EXPECT_EQ(index, -1);
        EXPECT_EQ(spec, "");
        EXPECT_EQ(output, "kept");
    }
}

TEST(NextPlaceholder, ResumesBehindThePlaceholder) {
    const char* const text = "a{1:X}b{0}c";
    std::string output;
    std::string spec;
    int32_t index = -1;
    const char* position = NextPlaceholder(text, output, index, spec);
    EXPECT_EQ(position, text + 6);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(spec, "X");
    EXPECT_EQ(output, "a");
    position = NextPlaceholder(position, output, index, spec);
    EXPECT_EQ(position, text + 10);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(spec, "");
    EXPECT_EQ(output, "ab");
    EXPECT_EQ(NextPlaceholder(position, output, index, spec), nullptr);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(output, "abc");
}

TEST(NextPlaceholder, GivesTheLastPlaceholderTogetherWithTheEnd) {
    std::string output;
    std::string spec;
    int32_t index = -1;
    EXPECT_EQ(NextPlaceholder("x{3:xx}", output, index, spec), nullptr);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(spec, "xx");
}

TEST(NextPlaceholder, AnAbandonedSpecBecomesTextAndLeavesNoIndex) {
    std::string output;
    std::string spec;
    int32_t index = -1;
    EXPECT_EQ(NextPlaceholder("{0:abc", output, index, spec), nullptr);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(output, "abc");
}

TEST(FormatMessage, RendersTheLastPlaceholderOfTheText) {
    EXPECT_EQ(Format("{0}", -5), "-5");
    EXPECT_EQ(Format("value {0}", 1), "value 1");
    EXPECT_EQ(Format("{0}/{0:X}", -1), "-1/FFFFFFFFFFFFFFFF");
}

TEST(FormatMessage, DoubledBracesAreOne) {
    EXPECT_EQ(Format("a{{b}}c", 1), "a{b}c");
    EXPECT_EQ(Format("{{0}}", 1), "{0}");
    EXPECT_EQ(Format("{{{0}}}", 1), "{1}");
    EXPECT_EQ(Format("{{{{", 1), "{{");
    EXPECT_EQ(Format("}}}", 1), "}");
}

TEST(FormatMessage, DropsSingleBraces) {
    EXPECT_EQ(Format("a}b", 1), "ab");
    EXPECT_EQ(Format("{a}", 1), "a");
    EXPECT_EQ(Format("{}", 1), "");
    EXPECT_EQ(Format("a{", 1), "a");
    EXPECT_EQ(Format("}", 1), "");
    EXPECT_EQ(Format("{-1}", 1), "-1");
    EXPECT_EQ(Format("{:x}", 1), ":x");
    EXPECT_EQ(Format("{ 0}", 1), " 0");
}

TEST(FormatMessage, ReadsAtMostTwoDigits) {
    EXPECT_EQ(Format("{00}{01}", 1, 2), "12");
    EXPECT_EQ(Format("{100}", 1), "0");
    EXPECT_EQ(Format("{1000}", 1), "00");
    EXPECT_EQ(Format("{100:x}", 1), "0:x");
    EXPECT_EQ(Format("[{10}]", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, "ten"), "[ten]");
}

TEST(FormatMessage, DropsABraceAndItsDigitsBeforeAnythingElse) {
    EXPECT_EQ(Format("{1{0}", "x"), "x");
    EXPECT_EQ(Format("{12{0}", "x"), "x");
    EXPECT_EQ(Format("{0", "x"), "");
    EXPECT_EQ(Format("{00", "x"), "");
    EXPECT_EQ(Format("{0a}", "x"), "a");
    EXPECT_EQ(Format("{0 }b", "x"), " b");
    EXPECT_EQ(Format("{0{{", "x"), "{");
}

TEST(FormatMessage, ABraceInsideASpecEndsItAsText) {
    EXPECT_EQ(Format("{0:ab{0}", 7), "ab7");
    EXPECT_EQ(Format("{0:ab{{c}", 7), "ab{c");
    EXPECT_EQ(Format("{0:{0}", 7), "7");
    EXPECT_EQ(Format("{0:abc", 7), "abc");
    EXPECT_EQ(Format("{0:", 7), "");
    EXPECT_EQ(Format("{0:x}}", 255), "ff");
}

TEST(FormatMessage, AnIndexWithoutAnArgumentLeavesItsSpec) {
    EXPECT_EQ(Format("[{1}]", 1), "[]");
    EXPECT_EQ(Format("[{5}]", 1), "[]");
    EXPECT_EQ(Format("[{5:X}{99:text}]", 1), "[Xtext]");
    EXPECT_EQ(Format("[{1:t}]", 1), "[t]");
}

TEST(FormatMessage, AnArgumentMayBeUsedOftenOrNotAtAll) {
    EXPECT_EQ(Format("{1}{0}{1}{1:X}", 1, 10), "10110A");
    EXPECT_EQ(Format("nothing", 1, 2), "nothing");
}

TEST(FormatMessage, NeverScansAValueAgain) {
    EXPECT_EQ(Format("{0} {1}", "{1}{{%s}}", std::string("{0:X}")), "{1}{{%s}} {0:X}");
    const std::vector<std::string> list = {"{0}"};
    EXPECT_EQ(Format("{0}%d", list), "[{0}]%d");
}

TEST(FormatMessage, HoldsAnyNumberOfBytes) {
    const std::string value(300000, 'v');
    const std::string literal(5000, 'l');
    EXPECT_EQ(Format(literal + "{0}" + literal, value), literal + value + literal);
    EXPECT_EQ(Format("{0:" + literal + "}", value), literal);
}

TEST(FormatMessage, PutsTheObjectInBracketsFirst) {
    const LogArg args[] = {LogArg("root")};
    void* const object = reinterpret_cast<void*>(uintptr_t{0xABC});
    EXPECT_EQ(FormatMessage(object, "param {0}", args, 1), "[0000000000000ABC]param root");
    EXPECT_EQ(FormatMessage(object, "", args, 1), "[0000000000000ABC]");
    EXPECT_EQ(FormatMessage(nullptr, "param {0}", args, 1), "param root");
}

TEST(LogFormat, WritesTheMessageWithItsCallSite) {
    LogCapture log;
    const int line = __LINE__ + 1;
    LOG_FORMAT(kError, "load plugin failed {0}/{0:X}, fkey {1}", -2147483642, std::string("a"));
    const std::vector<LogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].Line(), "5 load plugin failed -2147483642/FFFFFFFF80000006, fkey a");
    EXPECT_EQ(records[0].logger, "vessa");
    EXPECT_EQ(records[0].file, "tests/unit/MessageFormat_test.cpp");
    EXPECT_NE(records[0].function.find("TestBody()"), std::string::npos);
    EXPECT_EQ(records[0].line, line);
}

TEST(LogFormat, TheObjectBoundFormLeadsWithTheAddress) {
    LogCapture log;
    LOG_FORMAT_OF(reinterpret_cast<void*>(uintptr_t{0x10}), kInformation, "param {0}", 1);
    EXPECT_TRUE(log.Is({"3 [0000000000000010]param 1"}));
}

TEST(LogFormat, AnEmptyMessageIsNotWritten) {
    LogCapture log;
    LOG_FORMAT(kError, "{0}", std::string());
    LOG_FORMAT(kError, "{0}", static_cast<const char*>(nullptr));
    LOG_FORMAT(kError, "", 1);
    LOG_FORMAT(kError, "{", 1);
    EXPECT_TRUE(log.Is({}));
}

TEST(LogFormat, ANullFormatWritesNothing) {
    LogCapture log;
    const char* const format = nullptr;
    LOG_FORMAT(kError, format, 1);
    LOG_FORMAT_OF(&log, kError, format, 1);
    EXPECT_TRUE(log.Is({}));
}

TEST(LogFormat, BuildsNothingForASuppressedMessage) {
    LogCapture log(5);
    Listed value;
    long allocations = -1;
    {
        AllocationFailure count(0);
        LOG_FORMAT(kWarning, "{0}", value);
        allocations = count.Count();
    }
    EXPECT_EQ(value.asked, 0);
    EXPECT_EQ(allocations, 0);
    EXPECT_TRUE(log.Is({}));
}

TEST(LogFormat, LooksAtTheThresholdAgainBeforeItWrites) {
    LogCapture log(1);
    Listed value;
    value.text = "text";
    value.when_asked = [] { SKRIB_SetThreshold("vessa", SKRIB_LEVEL_OFF); };
    LOG_FORMAT(kError, "{0}", value);
    EXPECT_EQ(value.asked, 1);
    EXPECT_TRUE(log.Is({}));
}

TEST(LogFormat, WithoutALoggerNothingIsWritten) {
    std::atomic<void*> no_logger{nullptr};
    const LogSite site{&no_logger, kError, "file", "function", 1};
    LogCapture log;
    LogFormat(site, nullptr, "text {0}", 1);
    EXPECT_TRUE(log.Is({}));
}

TEST(LogFormat, AValueThatThrowsDropsTheMessageOnly) {
    LogCapture log;
    Listed value;
    value.when_asked = [] { throw 1; };
    EXPECT_NO_THROW(LOG_FORMAT(kError, "{0}", value));
    LOG_FORMAT(kError, "next {0}", 1);
    EXPECT_TRUE(log.Is({"5 next 1"}));
}

TEST(LogFormat, DropsTheMessageWhenAnyAllocationFails) {
    LogCapture log;
    const std::string value(4000, 'v');
    const std::vector<std::string> list(20, value);
    LOG_FORMAT(kError, "{0}{1:a longer spec than fits into a string itself}", list, value);
    const std::vector<std::string> whole = log.Lines();
    ASSERT_EQ(whole.size(), 1U);
    int failures = 0;
    for (long n = 1;; ++n) {
        log.Clear();
        bool thrown = false;
        long failed = 0;
        {
            AllocationFailure failure(n);
            try {
                LOG_FORMAT(kError, "{0}{1:a longer spec than fits into a string itself}", list,
                           value);
            } catch (...) {
                thrown = true;
            }
            failed = failure.Failed();
        }
        EXPECT_FALSE(thrown) << n;
        if (failed == 0) {
            EXPECT_TRUE(log.Is(whole));
            break;
        }
        ++failures;
        EXPECT_TRUE(log.Is({})) << n;
    }
    EXPECT_GE(failures, 3);
}

TEST(FormatMessage, AgreesWithItsRulesOnRandomTexts) {
    const std::vector<std::string> pieces = {
        "{",     "}",     "{{",  "}}",   "0",  "1",     "2",      "9",   ":",     "x",
        "X",     "t",     "T",   "a",    " ",  "{0}",   "{1}",    "{2}", "{0:x}", "{1:X}",
        "{2:t}", "{2:q}", "{0:", "{12}", "{0", "{100}", "{1:xx}", "%s",  "{3}",   "{02:X}"};
    const auto value = [](int index, const std::string& spec) -> std::string {
        const bool known = index < 3;
        if (!known) return spec;
        if (spec == "t" || spec == "T") return "(parse error)";
        if (spec.empty()) return index == 0 ? "-16" : index == 1 ? "word{0}" : "3000000000";
        if (spec == "x")
            return index == 0 ? "fffffffffffffff0" : index == 1 ? kParseError : "b2d05e00";
        if (spec == "X")
            return index == 0 ? "FFFFFFFFFFFFFFF0" : index == 1 ? kParseError : "B2D05E00";
        return spec;
    };
    const std::string word = "word{0}";
    std::mt19937 random(20240607);
    int differences = 0;
    for (int round = 0; round < 100000; ++round) {
        std::string text;
        for (size_t length = random() % 12; length > 0; --length)
            text += pieces[random() % pieces.size()];
        const std::string message = Format(text, -16, word, 3000000000U);
        const std::string expected = vessa_test::TranscribedMessage(text, value);
        if (message != expected && ++differences <= 10)
            ADD_FAILURE() << "\"" << text << "\": \"" << message << "\" instead of \"" << expected
                          << "\"";
    }
    EXPECT_EQ(differences, 0);
}

}  // namespace
