#include "common/XmlLimits.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>

namespace {

// What a byte may be, of all that is the same in every locale.
enum ByteKind : unsigned char {
    kSpace = 1,
    kNameStart = 2,
    kNameByte = 4,
    kPlain = 8,  // in a value or a text: one character by itself, and the end of neither
};

struct ByteKinds {
    unsigned char of[256] = {};

    constexpr ByteKinds() {
        for (int c = 1; c < 256; ++c) {
            const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
            const bool start = letter || c == '_' || c >= 127;
            const bool more = (c >= '0' && c <= '9') || c == '-' || c == '.' || c == ':';
            const bool plain = c < 128 && c != '&' && c != '"' && c != '\'' && c != '<';
            if (c == ' ' || (c >= '\t' && c <= '\r')) of[c] |= kSpace;
            if (start) of[c] |= kNameStart;
            if (start || more) of[c] |= kNameByte;
            if (plain) of[c] |= kPlain;
        }
    }
};
constexpr ByteKinds kKinds;

// As the parser, which asks the locale.
bool IsSpace(unsigned char c) {
    return c < 128 ? (kKinds.of[c] & kSpace) != 0 : std::isspace(c) != 0;
}
bool IsNameStart(unsigned char c) {
    return (kKinds.of[c] & kNameStart) != 0;
}

size_t Utf8Length(unsigned char lead) {
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 1;
}

// Follows the parser through a text. A member that reads something gives false where the
// parser gives up; nothing may be read after that.
class XmlWalk {
  public:
    explicit XmlWalk(const std::string& text) : text_(text) {}

    XmlExtent Run() {
        utf8_ = text_.compare(0, 3, "\xEF\xBB\xBF") == 0;
        encoding_known_ = utf8_;
        if (SkipSpace()) WalkNodes();
        return extent_;
    }

  private:
    struct Name {
        size_t start;
        size_t length;
    };

    unsigned char At(size_t position) const {
        return position < text_.size() ? static_cast<unsigned char>(text_[position]) : '\0';
    }
    // The zero byte behind the text is of no kind.
    void Skip(ByteKind kind) {
        if (position_ >= text_.size()) return;
        const char* const start = text_.c_str();
        const char* next = start + position_;
        while ((kKinds.of[static_cast<unsigned char>(*next)] & kind) != 0) ++next;
        position_ = static_cast<size_t>(next - start);
    }
    bool AtEnd() const { return At(position_) == '\0'; }
    bool Looking(const char* what) const {
        return text_.compare(std::min(position_, text_.size()), std::strlen(what), what) == 0;
    }
    bool LookingIgnoringCase(const char* what) const {
        for (size_t i = 0; what[i] != '\0'; ++i) {
            const unsigned char c = At(position_ + i);
            if (c >= 128 || std::tolower(c) != what[i]) return false;
        }
        return true;
    }

    bool SkipSpace() {
        for (;;) {
            Skip(kSpace);
            if (utf8_ && At(position_) == 0xEF &&
                (Looking("\xEF\xBB\xBF") || Looking("\xEF\xBF\xBE") || Looking("\xEF\xBF\xBF")))
                position_ += 3;
            else if (IsSpace(At(position_)))
                ++position_;
            else
                return !AtEnd();
        }
    }

    bool ReadName(Name& name) {
        if (!IsNameStart(At(position_))) return false;
        name.start = position_;
        Skip(kNameByte);
        name.length = position_ - name.start;
        return !AtEnd();
    }

    // A character reference: its digits are looked for backwards from the next ";", so it may
    // stretch over anything that stands before them.
    bool ReadReference(std::string* value) {
        const bool hex = At(position_ + 2) == 'x';
        const size_t end = text_.find(';', position_ + (hex ? 3 : 2));
        if (end == std::string::npos) return false;
        unsigned long code = 0;
        unsigned factor = 1;
        for (size_t i = end - 1; text_[i] != (hex ? 'x' : '#'); --i) {
            const unsigned char c = At(i);
            if (!(hex ? std::isxdigit(c) : std::isdigit(c))) return false;
            const int digit = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
            code += factor * static_cast<unsigned>(digit);
            factor *= hex ? 16 : 10;
        }
        if (value != nullptr) *value += static_cast<char>(code);
        position_ = end + 1;
        return true;
    }

    bool ReadCharacter(std::string* value) {
        const size_t length = utf8_ ? Utf8Length(At(position_)) : 1;
        if (length == 1 && At(position_) == '&') return ReadEntity(value);
        if (value != nullptr) value->append(text_, position_, length);
        position_ += length;
        return true;
    }

    bool ReadEntity(std::string* value) {
        static constexpr struct {
            const char* text;
            char character;
        } kEntities[] = {
            {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
        if (At(position_ + 1) == '#' && At(position_ + 2) != '\0') return ReadReference(value);
        for (const auto& entity : kEntities) {
            if (!Looking(entity.text)) continue;
            if (value != nullptr) *value += entity.character;
            position_ += std::strlen(entity.text);
            return true;
        }
        ++position_;
        return true;
    }

    // The bytes of a value or a text are nearly all of these.
    void SkipPlain() { Skip(kPlain); }

    bool ReadText(char end, bool trim, std::string* value = nullptr) {
        if (trim && !SkipSpace()) return false;
        for (;;) {
            if (value == nullptr) SkipPlain();
            if (AtEnd() || At(position_) == static_cast<unsigned char>(end)) break;
            if (trim && IsSpace(At(position_)))
                ++position_;
            else if (!ReadCharacter(value))
                return false;
        }
        if (AtEnd()) return false;
        ++position_;
        return !AtEnd();
    }

    bool ReadAttribute(std::string* value = nullptr) {
        Name name{};
        if (!SkipSpace() || !ReadName(name) || !SkipSpace() || At(position_) != '=') return false;
        ++position_;
        if (!SkipSpace()) return false;
        const unsigned char quote = At(position_);
        if (quote == '"' || quote == '\'') {
            ++position_;
            return ReadText(static_cast<char>(quote), false, value);
        }
        while (!AtEnd() && !IsSpace(At(position_)) && At(position_) != '/' &&
               At(position_) != '>') {
            if (At(position_) == '"' || At(position_) == '\'') return false;
            if (value != nullptr) *value += text_[position_];
            ++position_;
        }
        return !AtEnd();
    }

    // The attributes as nearly all lists have them, name="value" behind a blank or more, up to
    // the first one that is anything else. Gives false where the walk ends.
    bool SkipUsualAttributes(int& attributes) {
        const auto is = [](char c, int kinds) {
            return (kKinds.of[static_cast<unsigned char>(c)] & kinds) != 0;
        };
        if (position_ >= text_.size()) return true;
        const char* next = text_.c_str() + position_;
        for (;;) {
            while (is(*next, kSpace)) ++next;
            // In UTF-8 what is no ASCII may be a blank to the parser.
            if (static_cast<unsigned char>(*next) >= 127 || !is(*next, kNameStart)) return true;
            while (is(*next, kNameByte)) ++next;
            if (next[0] != '=' || (next[1] != '"' && next[1] != '\'')) return true;
            const char quote = next[1];
            next += 2;
            while (is(*next, kPlain)) ++next;
            if (next[0] != quote || next[1] == '\0') return true;
            ++next;
            position_ = static_cast<size_t>(next - text_.c_str());
            extent_.attributes = std::max(extent_.attributes, ++attributes);
            if (attributes > kMaxXmlAttributes) return false;
        }
    }

    bool ReadUpTo(const char* end) {
        const size_t found = text_.find(end, std::min(position_, text_.size()));
        if (found == std::string::npos) return false;
        position_ = found + std::strlen(end);
        return true;
    }

    // Decides the reading of the rest when it stands outside every element.
    bool ReadDeclaration() {
        position_ += 5;
        std::string encoding;
        for (;;) {
            if (AtEnd()) return false;
            if (At(position_) == '>') break;
            if (!SkipSpace()) return false;
            std::string value;
            if (LookingIgnoringCase("version") || LookingIgnoringCase("standalone")) {
                if (!ReadAttribute()) return false;
            } else if (LookingIgnoringCase("encoding")) {
                if (!ReadAttribute(&value)) return false;
                encoding = value.c_str();
            } else {
                while (!AtEnd() && At(position_) != '>' && !IsSpace(At(position_))) ++position_;
            }
        }
        ++position_;
        if (!encoding_known_ && depth_ == 0) {
            for (char& c : encoding)
                if (static_cast<unsigned char>(c) < 128) c = static_cast<char>(std::tolower(c));
            utf8_ = encoding.empty() || encoding.compare(0, 5, "utf-8") == 0 ||
                    encoding.compare(0, 4, "utf8") == 0;
            encoding_known_ = true;
        }
        return true;
    }

    // From the "<" of a start tag to behind its ">".
    bool ReadStartTag() {
        Name name{};
        ++position_;
        extent_.depth = std::max(extent_.depth, static_cast<int>(depth_) + 1);
        if (extent_.depth > kMaxXmlDepth || !SkipSpace() || !ReadName(name)) return false;
        for (int attributes = 0;;) {
            if (!SkipUsualAttributes(attributes) || !SkipSpace()) return false;
            if (At(position_) == '/') {
                position_ += 2;
                return At(position_ - 1) == '>';
            }
            if (At(position_) == '>') {
                ++position_;
                open_[depth_++] = name;
                return true;
            }
            extent_.attributes = std::max(extent_.attributes, ++attributes);
            if (attributes > kMaxXmlAttributes || !ReadAttribute()) return false;
        }
    }

    bool ReadEndTag() {
        const Name name = open_[depth_ - 1];
        position_ += 2;
        if (text_.compare(position_, name.length, text_, name.start, name.length) != 0)
            return false;
        position_ += name.length;
        if (!SkipSpace() || At(position_) != '>') return false;
        ++position_;
        --depth_;
        return true;
    }

    bool CountNode() { return ++extent_.nodes <= kMaxXmlNodes; }

    bool ReadNode() {
        if (At(position_) != '<') {
            if (depth_ == 0 || !CountNode() || !ReadText('<', true)) return false;
            --position_;
            return true;
        }
        if (IsNameStart(At(position_ + 1))) return CountNode() && ReadStartTag();
        if (depth_ != 0 && Looking("</")) return ReadEndTag();
        if (!CountNode()) return false;
        if (LookingIgnoringCase("<?xml")) return ReadDeclaration();
        if (Looking("<!--")) {
            position_ += 4;
            return ReadUpTo("-->");
        }
        if (Looking("<![CDATA[")) {
            position_ += 9;
            return ReadUpTo("]]>");
        }
        return ReadUpTo(">");
    }

    void WalkNodes() {
        while (ReadNode() && SkipSpace()) {
        }
    }

    const std::string& text_;
    size_t position_ = 0;
    bool utf8_ = false;
    bool encoding_known_ = false;
    // Only the first depth_ of them were written.
    Name open_[kMaxXmlDepth];
    size_t depth_ = 0;
    XmlExtent extent_;
};

}  // namespace

XmlExtent MeasureXml(const std::string& text) {
    return XmlWalk(text).Run();
}

const char* CheckXmlLimits(const std::string& text) {
    const XmlExtent extent = MeasureXml(text);
    if (extent.depth > kMaxXmlDepth) return "Elements nested too deeply.";
    if (extent.attributes > kMaxXmlAttributes) return "Too many attributes on one element.";
    if (extent.nodes > kMaxXmlNodes) return "Too many nodes.";
    return nullptr;
}
