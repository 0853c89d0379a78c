#include <algorithm>
#include <cstddef>
#include <map>
#include <sstream>

#include "support/LogCapture.h"

namespace vessa_test {
namespace {

using Bindings = std::map<std::string, std::string>;

// A line with placeholders, matched from one position on.
class Pattern {
  public:
    Pattern(const std::string& pattern, const std::string& line, Bindings& bindings)
        : pattern_(pattern), line_(line), bindings_(bindings) {}

    bool Matches(std::size_t p = 0, std::size_t l = 0) {
        while (p < pattern_.size()) {
            const std::size_t end = PlaceholderEnd(p);
            if (end != 0) return MatchesPlaceholder(p, end, l);
            if (l == line_.size() || line_[l] != pattern_[p]) return false;
            ++p;
            ++l;
        }
        return l == line_.size();
    }

  private:
    // The position after the placeholder that begins at p; 0 if none does.
    std::size_t PlaceholderEnd(std::size_t p) const {
        if (pattern_.compare(p, 2, "{*") != 0) return 0;
        const std::size_t brace = pattern_.find('}', p);
        return brace == std::string::npos ? 0 : brace + 1;
    }

    bool MatchesPlaceholder(std::size_t p, std::size_t end, std::size_t l) {
        const std::string name = pattern_.substr(p + 2, end - p - 3);
        const auto bound = bindings_.find(name);
        if (!name.empty() && bound != bindings_.end()) {
            const std::string& text = bound->second;
            return line_.compare(l, text.size(), text) == 0 && Matches(end, l + text.size());
        }
        for (std::size_t length = 0; l + length <= line_.size(); ++length) {
            if (!name.empty()) bindings_[name] = line_.substr(l, length);
            if (Matches(end, l + length)) return true;
        }
        if (!name.empty()) bindings_.erase(name);
        return false;
    }

    const std::string& pattern_;
    const std::string& line_;
    Bindings& bindings_;
};

void ShowFrom(std::ostream& out, const char* mark, const std::vector<std::string>& lines,
              std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < std::min(end, lines.size()); ++i)
        out << mark << " " << i + 1 << ": " << lines[i] << "\n";
    if (end < lines.size()) out << mark << " ... up to line " << lines.size() << "\n";
}

std::string Difference(const std::vector<std::string>& lines,
                       const std::vector<std::string>& expected, std::size_t at,
                       const Bindings& bindings) {
    constexpr std::size_t kBefore = 4;
    constexpr std::size_t kAfter = 12;
    std::ostringstream out;
    out << "the first difference is at line " << at + 1 << " (" << expected.size()
        << " lines expected, " << lines.size() << " written)\n";
    const std::size_t context = at < kBefore ? 0 : at - kBefore;
    for (std::size_t i = context; i < at; ++i) out << "  " << i + 1 << ": " << lines[i] << "\n";
    ShowFrom(out, "- expected", expected, at, at + kAfter);
    ShowFrom(out, "+ written ", lines, at, at + kAfter);
    for (std::size_t i = 0; at < expected.size() && i < lines.size(); ++i) {
        Bindings trial = bindings;
        if (i == at || !Pattern(expected[at], lines[i], trial).Matches()) continue;
        out << "the line expected here stands at line " << i + 1 << "\n";
    }
    for (const auto& [name, text] : bindings) out << "{*" << name << "} is " << text << "\n";
    return out.str();
}

}  // namespace

bool LineMatches(const std::string& line, const std::string& expected) {
    Bindings bindings;
    return Pattern(expected, line, bindings).Matches();
}

testing::AssertionResult LinesAre(const std::vector<std::string>& lines,
                                  const std::vector<std::string>& expected) {
    Bindings bindings;
    const std::size_t common = std::min(lines.size(), expected.size());
    std::size_t at = 0;
    while (at < common && Pattern(expected[at], lines[at], bindings).Matches()) ++at;
    if (at == lines.size() && at == expected.size()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << Difference(lines, expected, at, bindings);
}

}  // namespace vessa_test
