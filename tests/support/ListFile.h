// ListFile.h: the text of a list file.
#ifndef VESSA_TESTS_SUPPORT_LISTFILE_H
#define VESSA_TESTS_SUPPORT_LISTFILE_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vessa_test {

// ListFile().Plugin("codec", "./codec.so", {{"delayload", "true"}}).Text()
class ListFile {
  public:
    using Attributes = std::vector<std::pair<std::string, std::string>>;

    // One element with the attributes in this order: fkey, file, others. The values are
    // escaped.
    ListFile& Plugin(std::string_view fkey, std::string_view file, const Attributes& others = {}) {
        Attributes all = {{"fkey", std::string(fkey)}, {"file", std::string(file)}};
        all.insert(all.end(), others.begin(), others.end());
        return Element("plugin", all);
    }

    ListFile& Element(std::string_view name, const Attributes& attributes) {
        body_ += "  <" + std::string(name);
        for (const auto& [attribute, value] : attributes)
            body_ += " " + attribute + "=\"" + Escape(value) + "\"";
        body_ += "/>\n";
        return *this;
    }

    // As it stands, inside the root element.
    ListFile& Raw(std::string_view text) {
        body_ += text;
        return *this;
    }

    std::string Text() const { return "<vessa>\n" + body_ + "</vessa>\n"; }

  private:
    static std::string Escape(std::string_view value) {
        std::string escaped;
        for (const char c : value) {
            switch (c) {
                case '&':
                    escaped += "&amp;";
                    break;
                case '<':
                    escaped += "&lt;";
                    break;
                case '>':
                    escaped += "&gt;";
                    break;
                case '"':
                    escaped += "&quot;";
                    break;
                default:
                    escaped += c;
            }
        }
        return escaped;
    }

    std::string body_;
};

}  // namespace vessa_test

#endif
