// The small language of the stored cases.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "reliability/lists/ListCase.h"

namespace vessa_lists {
namespace {

std::string Made(const std::string& recipe) {
    return ParseRecipe(ListCase(), recipe).content;
}

TEST(ListCase, ARecipeMakesItsText) {
    EXPECT_EQ(Made("text a\\sb\\x00\n"), std::string("a b\0", 4));
    EXPECT_EQ(Made("text <\nrepeat 3 k{n},\ntext >"), "<k0,k1,k2,>");
    EXPECT_EQ(Made("text ab\nfill 9 xyz"), "abxyzxyz");
    EXPECT_EQ(Made("text ab\nupto 9 xyz"), "abxyzxyzx");
    EXPECT_EQ(ParseRecipe(ListCase(), "kind fifo").kind, "fifo");
}

TEST(ListCase, AnExpectationHasAVerdictAndWhatBelongsToIt) {
    const ListCase list_case =
        ParseExpectation(ListCase(), "accepted\nfkey a\\\\b\nfkeys 2 k{n}\nlog 4 text {*}\n");
    EXPECT_EQ(list_case.verdict, ListCase::Verdict::kAccepted);
    EXPECT_EQ(list_case.fkeys, (std::vector<std::string>{"a\\b", "k0", "k1"}));
    EXPECT_EQ(list_case.log, (std::vector<std::string>{"4 text {*}"}));
    const ListCase odd = ParseExpectation(ListCase(), "accepted\nlong 3 ab\nunregistered c");
    EXPECT_EQ(odd.fkeys, (std::vector<std::string>{"ababab", "c"}));
    EXPECT_EQ(odd.unregistered, std::set<std::string>{"c"});
    EXPECT_EQ(ParseExpectation(ListCase(), "refused").verdict, ListCase::Verdict::kRefused);
    EXPECT_EQ(ParseExpectation(ListCase(), "absent").verdict, ListCase::Verdict::kAbsent);
}

TEST(ListCase, WhatIsNotUnderstoodIsNotPassedOver) {
    for (const char* const recipe : {"test a", "repeat a", "text \\q", "text \\x4", "text \\"})
        EXPECT_THROW(Made(recipe), std::runtime_error) << recipe;
    for (const char* const text : {"perhaps", "accepted\nfkei a", "accepted\nfkeys a"})
        EXPECT_THROW(ParseExpectation(ListCase(), text), std::runtime_error) << text;
}

}  // namespace
}  // namespace vessa_lists
