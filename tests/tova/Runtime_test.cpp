#include <gtest/gtest.h>

#include <string>

#include "Support.h"

extern "C" int UseEveryConstantFromC(void);

TEST(Runtime, CountsItsUsersAndNeedsNone) {
    EXPECT_EQ(TOVA_Fini(), 0);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(TOVA_Init(), 0);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(TOVA_Fini(), 0);
    tova_test::Sem sem(1);
    EXPECT_EQ(TOVA_SemTimedWait(&sem.value, 0), 0);
}

TEST(Runtime, HasAHeaderForC) {
    EXPECT_EQ(UseEveryConstantFromC(), 0);
}

TEST(Strncpy, CopiesTheTextAndOneZero) {
    char to[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
    EXPECT_EQ(TOVA_Strncpy(to, "abc", sizeof to), to);
    EXPECT_EQ(std::string(to, sizeof to), std::string("abc\0####", 8));
}

TEST(Strncpy, LeavesTheZeroOutWhereItDoesNotFit) {
    char to[5] = {'#', '#', '#', '#', '#'};
    EXPECT_EQ(TOVA_Strncpy(to, "abc", 3), to);
    EXPECT_EQ(std::string(to, sizeof to), "abc##");
}

TEST(Strncpy, CutsALongText) {
    char to[5] = {'#', '#', '#', '#', '#'};
    EXPECT_EQ(TOVA_Strncpy(to, "abcdef", 2), to);
    EXPECT_EQ(std::string(to, sizeof to), "ab###");
}

TEST(Strncpy, WritesNothingForNoBytes) {
    char to[2] = {'#', '#'};
    EXPECT_EQ(TOVA_Strncpy(to, "abc", 0), to);
    EXPECT_EQ(std::string(to, sizeof to), "##");
}

TEST(Strncpy, DoesNotFillUpAnExaggeratedSize) {
    char to[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(TOVA_Strncpy(to, "ab", 0xFFFFFFFFu), to);
    EXPECT_EQ(std::string(to, sizeof to), std::string("ab\0#", 4));
}

TEST(Strncpy, ReadsNoFurtherThanTheBytesItCopies) {
    const char from[3] = {'a', 'b', 'c'};
    char to[3] = {'#', '#', '#'};
    EXPECT_EQ(TOVA_Strncpy(to, from, 3), to);
    EXPECT_EQ(std::string(to, sizeof to), "abc");
}

TEST(Strncpy, CopiesAnEmptyTextAsOneZero) {
    char to[2] = {'#', '#'};
    EXPECT_EQ(TOVA_Strncpy(to, "", 2), to);
    EXPECT_EQ(std::string(to, sizeof to), std::string("\0#", 2));
}
