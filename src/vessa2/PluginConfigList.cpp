#include "vessa2/PluginConfigList.h"

#include <tinyxml.h>

#include <cstdio>
#include <ostream>

#include "common/MessageFormat.h"
#include "common/XmlLimits.h"
#include "process/Process.h"
#include "tova.h"

namespace {

constexpr size_t kMaxListFileSize = 0x100000;

// The parser reads on behind the end of a text that is cut inside a multi-byte character.
constexpr size_t kParserPadding = 8;

std::string StripBlanks(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Null when the element has no such attribute.
const char* FindAttribute(const TiXmlElement& element, const char* name) {
    const std::string wanted = name;
    for (const TiXmlAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        if (wanted == attribute->Name()) return attribute->Value();
    }
    return nullptr;
}

std::string AttributeText(const TiXmlElement& element, const char* name) {
    const char* const value = FindAttribute(element, name);
    return StripBlanks(value != nullptr ? value : "");
}

bool IsTrue(const char* value) {
    return std::string(value).compare(0, 4, "true") == 0;
}

// False: the element declares nothing. delay_load holds the value of the element before it.
bool ReadItem(const TiXmlElement& element, bool& delay_load, PluginConfigItem& item) {
    item.fkey = AttributeText(element, "fkey");
    if (item.fkey.empty()) {
        LOG_PLAIN(kWarning, "invalid item, fkey should not be empty");
        return false;
    }
    item.file_path = AttributeText(element, "file");
    if (item.file_path.empty()) {
        LOG_FORMAT(kWarning, "invalid item, file should not be empty, fkey {0}", item.fkey);
        return false;
    }
    // Kept: an element without "delayload" takes the value of the one before it.
    if (const char* const value = FindAttribute(element, "delayload")) delay_load = IsTrue(value);
    item.delay_load = delay_load;
    const char* const load_fkeys = FindAttribute(element, "loadfkeys");
    item.load_fkeys = load_fkeys != nullptr && IsTrue(load_fkeys);
    for (const TiXmlAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        item.attributes[attribute->Name()] = attribute->Value();
    }
    return true;
}

struct FileCloser {
    FILE* file;
    ~FileCloser() { std::fclose(file); }
};

// Reads the open file; false leaves text to be cleared by the caller.
bool ReadOpenFile(FILE* file, std::string& text, size_t max_size) {
    const int64_t size = process::SeekToEnd(file);
    if (size < 0) return false;
    if (static_cast<uint64_t>(size) >= max_size) {
        process::SetErrorFileTooLarge();
        return false;
    }
    if (size == 0) return true;
    if (std::fseek(file, 0, SEEK_SET) != 0) return false;
    const size_t wanted = static_cast<size_t>(size);
    text.resize(wanted);
    if (std::fread(&text[0], 1, wanted, file) != wanted) {
        if (std::ferror(file) == 0) process::SetErrorFileChanged();
        return false;
    }
    // Half of what somebody is still writing is no list.
    if (std::fgetc(file) != EOF) {
        process::SetErrorFileChanged();
        return false;
    }
    const size_t zero = text.find('\0');
    if (zero != std::string::npos) text.resize(zero);
    return true;
}

}  // namespace

bool ReadTextFile(const std::string& path, std::string& text, size_t max_size) {
    if (path.empty()) return false;
    FILE* const file = process::OpenRegularFile(path.c_str());
    if (file == nullptr) return false;
    const FileCloser closer{file};
    if (ReadOpenFile(file, text, max_size)) return true;
    text.clear();
    return false;
}

bool PluginConfigList::ParseXmlFile(const std::string& file_path) {
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
    return ParseXmlString(text);
}

bool PluginConfigList::ParseXmlString(const std::string& xml) {
    LOG_FORMAT(kDebug, "param xml = {0}", xml);
    TiXmlDocument document;
    std::string parsed = xml.c_str();
    const char* refusal = CheckXmlLimits(parsed);
    if (refusal == nullptr) {
        parsed.append(kParserPadding, '\0');
        document.Parse(parsed.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
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
    bool delay_load = false;
    for (const TiXmlElement* element = section->FirstChildElement("plugin"); element != nullptr;
         element = element->NextSiblingElement("plugin")) {
        PluginConfigItem item;
        if (ReadItem(*element, delay_load, item)) push_back(item);
    }
    return true;
}

void AppendLogText(std::string& output, const PluginConfigList& list) {
    output += '[';
    const char* separator = "";
    for (const PluginConfigItem& item : list) {
        output += separator;
        output.append("{fkey:").append(item.fkey);
        output.append(", file_path:").append(item.file_path);
        output.append(", delay_load:").append(item.delay_load ? "1" : "0").append("}");
        separator = ", ";
    }
    output += ']';
}

std::ostream& operator<<(std::ostream& stream, const PluginConfigList& list) {
    std::string text;
    AppendLogText(text, list);
    return stream << text;
}
