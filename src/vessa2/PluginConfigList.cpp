#include "vessa2/PluginConfigList.h"

#include <tinyxml.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string_view>

#include "common/MessageFormat.h"
#include "common/XmlLimits.h"
#include "process/Process.h"
#include "tova.h"
#include "vessa2/PluginListOrigin.h"

namespace {

constexpr size_t kMaxListFileSize = 0x100000;

// The parser reads on behind the end of a text that is cut inside a multi-byte character.
constexpr size_t kParserPadding = 8;

bool IsTrue(std::string_view value) {
    return value.substr(0, 4) == "true";
}

// The elements of one document, each in its turn.
class ElementReader {
  public:
    explicit ElementReader(PluginListOrigin* origin) : origin_(origin) {
        declaration_.attributes.reserve(kUsualAttributes);
        if (origin != nullptr) declaration_.config_file_path = origin->config_file_path();
    }

    // False: the element declares nothing.
    bool Read(const TiXmlElement& element);
    // What was read last, as long as its element lives.
    const PluginDeclaration& declaration() const { return declaration_; }

  private:
    static constexpr size_t kUsualAttributes = 8;

    // What is read of an element. Without data where it has no such attribute.
    struct Values {
        std::string_view fkey;
        std::string_view file;
        std::string_view delay_load;
        std::string_view load_fkeys;
    };
    static std::string_view* ValueOf(Values& values, std::string_view name);
    void ReadAttributes(const TiXmlElement& element);

    PluginListOrigin* const origin_;
    PluginDeclaration declaration_;
    Values values_;
};

// Null: the attribute is only kept. By the length first, for this is asked for every attribute
// of every list.
std::string_view* ElementReader::ValueOf(Values& values, std::string_view name) {
    if (name.size() == 4) {
        if (std::memcmp(name.data(), "fkey", 4) == 0) return &values.fkey;
        if (std::memcmp(name.data(), "file", 4) == 0) return &values.file;
    } else if (name.size() == 9) {
        if (std::memcmp(name.data(), "delayload", 9) == 0) return &values.delay_load;
        if (std::memcmp(name.data(), "loadfkeys", 9) == 0) return &values.load_fkeys;
    }
    return nullptr;
}

void ElementReader::ReadAttributes(const TiXmlElement& element) {
    values_ = Values();
    declaration_.attributes.clear();
    for (const TiXmlAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        // A value ends at a zero byte, which a reference in it may stand for.
        const PluginAttribute found{attribute->NameTStr(), attribute->Value()};
        declaration_.attributes.push_back(found);
        if (std::string_view* const value = ValueOf(values_, found.name)) *value = found.value;
    }
}

bool ElementReader::Read(const TiXmlElement& element) {
    ReadAttributes(element);
    declaration_.fkey = StripBlanks(values_.fkey);
    if (declaration_.fkey.empty()) {
        LOG_PLAIN(kWarning, "invalid item, fkey should not be empty");
        return false;
    }
    const std::string_view file = StripBlanks(values_.file);
    if (file.empty()) {
        LOG_FORMAT(kWarning, "invalid item, file should not be empty, fkey {0}",
                   std::string(declaration_.fkey));
        return false;
    }
    declaration_.file_path = origin_ != nullptr ? std::string_view(origin_->Finish(file)) : file;
    // Kept: an element without "delayload" takes the value of the one before it.
    if (values_.delay_load.data() != nullptr) declaration_.delay_load = IsTrue(values_.delay_load);
    declaration_.load_fkeys = IsTrue(values_.load_fkeys);
    return true;
}

// Reads the open file; false leaves text to be cleared by the caller.
bool ReadOpenFile(process::RegularFile& file, std::string& text, size_t max_size) {
    const int64_t size = file.size();
    if (static_cast<uint64_t>(size) >= max_size) {
        process::SetErrorFileTooLarge();
        return false;
    }
    if (size == 0) return true;
    const size_t wanted = static_cast<size_t>(size);
    text.reserve(wanted + kParserPadding);
    text.resize(wanted + 1);
    const int64_t read = file.ReadWhole(&text[0], wanted);
    if (read < 0) return false;
    // Half of what somebody is still writing is no list.
    if (read != size) {
        process::SetErrorFileChanged();
        return false;
    }
    text.resize(wanted);
    const size_t zero = text.find('\0');
    if (zero != std::string::npos) text.resize(zero);
    return true;
}

}  // namespace

bool ReadTextFile(const std::string& path, std::string& text, size_t max_size) {
    if (path.empty()) return false;
    process::RegularFile file;
    if (!file.Open(path.c_str())) return false;
    if (ReadOpenFile(file, text, max_size)) return true;
    text.clear();
    return false;
}

std::string_view StripBlanks(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return text;
}

void PluginConfigList::MakeRoom(size_t more) {
    if (capacity() - size() < more) reserve(std::max(size() + more, size() * 2));
}

bool PluginConfigList::ParseXmlFile(const std::string& file_path, PluginListOrigin* origin) {
    LOG_FORMAT(kInformation, "param file_path = {0}", file_path);
    if (file_path.empty()) {
        LOG_PLAIN(kError, "param file_path should not be empty");
        return false;
    }
    if (TOVA_AccessFile(file_path.c_str(), 0) != 0) {
        LOG_FORMAT(kError, "file does not exist, {0}", file_path);
        return false;
    }
    std::string text;
    if (!ReadTextFile(file_path, text, kMaxListFileSize)) {
        const int error = TOVA_GetSystemLastError();
        LOG_FORMAT(kError, "ReadTextFile failed {0}/{0:X}, file path {1}", error, file_path);
        return false;
    }
    LOG_FORMAT(kDebug, "file path {0}, config {1}", file_path, text);
    LOG_FORMAT(kDebug, "param xml = {0}", text);
    return ParseText(text, origin);
}

bool PluginConfigList::ParseXmlString(const std::string& xml, PluginListOrigin* origin) {
    LOG_FORMAT(kDebug, "param xml = {0}", xml);
    std::string text = xml.c_str();
    return ParseText(text, origin);
}

// Leaves the text as it was; its capacity has room for the padding when it comes from a file.
bool PluginConfigList::ParseText(std::string& xml, PluginListOrigin* origin) {
    TiXmlDocument document;
    // Nobody asks at which line and column something stands, and with a tab size of 0 the parser
    // does not look at every byte a second time to know it.
    document.SetTabSize(0);
    const char* refusal = CheckXmlLimits(xml);
    if (refusal == nullptr) {
        const size_t length = xml.size();
        xml.append(kParserPadding, '\0');
        document.Parse(xml.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
        xml.resize(length);
        if (document.Error()) refusal = document.ErrorDesc();
    }
    if (refusal != nullptr) {
        LOG_FORMAT(kError, "xmlDoc Parse failed, err[{0}] {1}, xml - {2}", true, refusal, xml);
        return false;
    }
    clear();
    const TiXmlElement* const section = document.FirstChildElement("vessa");
    if (section == nullptr) {
        LOG_PLAIN(kError, "section vessa does not exist");
        return false;
    }
    ElementReader reader(origin);
    for (const TiXmlElement* element = section->FirstChildElement("plugin"); element != nullptr;
         element = element->NextSiblingElement("plugin")) {
        if (reader.Read(*element)) emplace_back(reader.declaration());
    }
    return true;
}

void AppendLogText(std::string& output, const PluginConfigList& list) {
    output += '[';
    const char* separator = "";
    for (const PluginConfigItem& item : list) {
        output += separator;
        output.append("{fkey:").append(item.fkey());
        output.append(", file_path:").append(item.file_path());
        output.append(", delay_load:").append(item.delay_load() ? "1" : "0").append("}");
        separator = ", ";
    }
    output += ']';
}

std::ostream& operator<<(std::ostream& stream, const PluginConfigList& list) {
    std::string text;
    AppendLogText(text, list);
    return stream << text;
}
