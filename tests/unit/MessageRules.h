// MessageRules.h: the rules of a message with placeholders, written down once more.
#ifndef VESSA_TESTS_UNIT_MESSAGERULES_H
#define VESSA_TESTS_UNIT_MESSAGERULES_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>

namespace vessa_test {

// The scanner once more, rule by rule and over again from each position, with the values
// already rendered for each spec.
inline std::string TranscribedMessage(
    const std::string& text, const std::function<std::string(int, const std::string&)>& value) {
    if (text.empty()) return "";
    const auto from = [&](size_t n) { return n < text.size() ? text.substr(n) : std::string(); };
    const auto rest = [&](size_t n) { return TranscribedMessage(from(n), value); };
    const bool doubled = text.size() > 1 && text[0] == text[1];
    if (text[0] != '{' && text[0] != '}') return text[0] + rest(1);
    if (doubled) return text[0] + rest(2);
    if (text[0] == '}') return rest(1);
    const size_t after = std::min(text.find_first_not_of("0123456789", 1), text.size());
    const size_t digits = std::min<size_t>(after - 1, 2);
    if (digits == 0) return rest(1);
    const int index = std::stoi(text.substr(1, digits));
    const std::string tail = from(1 + digits);
    if (tail.empty()) return "";
    if (tail[0] == '}') return value(index, "") + rest(digits + 2);
    if (tail[0] != ':') return rest(1 + digits);
    const size_t end = tail.find_first_of("{}", 1);
    const std::string spec = tail.substr(1, end == std::string::npos ? end : end - 1);
    if (end == std::string::npos) return spec;
    if (tail[end] == '{') return spec + rest(1 + digits + end);
    return value(index, spec) + rest(1 + digits + end + 1);
}

}  // namespace vessa_test

#endif
