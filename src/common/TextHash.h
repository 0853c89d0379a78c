// A hash of short texts, for tables whose keys nobody chooses to harm them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// Takes eight bytes at a time; the last ones overlap.
inline size_t HashOfText(std::string_view text) {
    constexpr uint64_t kFactor = 0x9E3779B97F4A7C15u;
    const char* at = text.data();
    size_t left = text.size();
    uint64_t hash = left * kFactor;
    const auto take = [&hash](uint64_t word) {
        hash = (hash ^ word) * kFactor;
        hash ^= hash >> 29;
    };
    const auto word_at = [](const char* bytes) {
        uint64_t word;
        std::memcpy(&word, bytes, sizeof word);
        return word;
    };
    const auto half_at = [](const char* bytes) {
        uint32_t half;
        std::memcpy(&half, bytes, sizeof half);
        return uint64_t{half};
    };
    if (left >= 8) {
        for (; left > 8; left -= 8, at += 8) take(word_at(at));
        take(word_at(at + left - 8));
    } else if (left >= 4) {
        take(half_at(at) << 32 | half_at(at + left - 4));
    } else if (left > 0) {
        // First, middle and last: of one byte three times the same.
        const auto byte_at = [at](size_t i) { return uint64_t{static_cast<unsigned char>(at[i])}; };
        take(byte_at(0) << 16 | byte_at(left / 2) << 8 | byte_at(left - 1));
    }
    // The last bytes have come to the upper half alone.
    hash = (hash ^ (hash >> 32)) * kFactor;
    return static_cast<size_t>(hash ^ (hash >> 32));
}
