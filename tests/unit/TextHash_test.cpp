#include "common/TextHash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

// A text of that length without a repetition in it.
std::string Text(size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('!' + i);
    return text;
}

TEST(TextHash, IsTheSameForTheSameTextWhereverItStands) {
    for (size_t length = 0; length <= 40; ++length) {
        const std::string text = Text(length);
        for (size_t offset = 0; offset < 9; ++offset) {
            const std::string around = std::string(offset, 'x') + text + "yyyyyyyyy";
            EXPECT_EQ(HashOfText(std::string_view(around).substr(offset, length)), HashOfText(text))
                << length << " at " << offset;
        }
    }
}

// In a block of its exact size: an address sanitizer sees a step over either end.
TEST(TextHash, ReadsNothingBesideTheText) {
    for (size_t length = 0; length <= 40; ++length) {
        const std::string text = Text(length);
        const std::unique_ptr<char[]> exact(new char[length]);
        std::copy(text.begin(), text.end(), exact.get());
        EXPECT_EQ(HashOfText(std::string_view(exact.get(), length)), HashOfText(text));
    }
    EXPECT_EQ(HashOfText(std::string_view()), HashOfText(""));
}

TEST(TextHash, TellsTextsApartThatDifferInOneByte) {
    for (size_t length = 1; length <= 40; ++length) {
        std::set<size_t> hashes = {HashOfText(Text(length))};
        size_t texts = 1;
        for (size_t at = 0; at < length; ++at) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string text = Text(length);
                if (text[at] == static_cast<char>(byte)) continue;
                text[at] = static_cast<char>(byte);
                hashes.insert(HashOfText(text));
                ++texts;
            }
        }
        // Of ten thousand random numbers of this size two are the same once in some 300 billion
        // cases; a byte that is left out makes 255 the same.
        EXPECT_EQ(hashes.size(), texts) << length;
    }
}

TEST(TextHash, TellsTextsApartThatDifferInTheirLengthAlone) {
    for (const char byte : {'\0', 'a', '\xff'}) {
        std::set<size_t> hashes;
        for (size_t length = 0; length <= 40; ++length)
            hashes.insert(HashOfText(std::string(length, byte)));
        EXPECT_EQ(hashes.size(), 41u) << int{byte};
    }
}

// The table takes the lowest bits.
TEST(TextHash, SpreadsNumberedKeysOverTheLowestBits) {
    constexpr size_t kSlots = 1024;
    for (const std::string& prefix : {std::string(), std::string("com.example.codec.")}) {
        std::vector<int> used(kSlots);
        for (int number = 0; number < 4096; ++number)
            ++used[HashOfText(prefix + std::to_string(number)) % kSlots];
        // Four on the average; by chance some slot has fifteen, hardly ever more.
        EXPECT_LT(*std::max_element(used.begin(), used.end()), 20) << prefix;
        EXPECT_LT(std::count(used.begin(), used.end(), 0), 50) << prefix;
    }
}

}  // namespace
