#include "common/Keys.h"

#include <cstdio>
#include <random>

namespace bench {

std::string Key(size_t index) {
    char text[32];
    std::snprintf(text, sizeof text, "bench.codec.%06zu", index);
    return text;
}

std::vector<std::string> Keys(size_t count) {
    std::vector<std::string> keys;
    keys.reserve(count);
    for (size_t i = 0; i < count; ++i) keys.push_back(Key(i));
    return keys;
}

RandomSequence::RandomSequence(size_t bound) : numbers_(kLength) {
    std::mt19937_64 random(20011);
    if (bound < 2) return;
    for (uint32_t& number : numbers_) number = static_cast<uint32_t>(random() % bound);
}

}  // namespace bench
