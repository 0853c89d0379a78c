// The plug-ins that one list file declares.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <list>
#include <map>
#include <string>

// One declared plug-in, copied by value wherever it is stored.
struct PluginConfigItem {
    std::string fkey;       // never empty in a parsed list
    std::string file_path;  // never empty in a parsed list; made absolute by the coordinator
    bool delay_load = false;
    bool load_fkeys = false;
    std::string config_file_path;  // filled in by the coordinator
    // Every attribute of the element with its value as the parser decodes it.
    std::map<std::string, std::string> attributes;
};

// The items of one list file in document order. Two elements with the same fkey are two items.
//
// Thread safety: none; whoever shares a list guards it.
class PluginConfigList : public std::list<PluginConfigItem> {
  public:
    // Read a file, or a text, into this list. False: the reason is in the log, and the list is
    // as it was, or empty if the text was well formed without being a plug-in list. No memory
    // is reported by std::bad_alloc.
    bool ParseXmlFile(const std::string& file_path);
    bool ParseXmlString(const std::string& xml);
};

// "[{fkey:a, file_path:/p/a.so, delay_load:1}, …]"
void AppendLogText(std::string& output, const PluginConfigList& list);
std::ostream& operator<<(std::ostream& stream, const PluginConfigList& list);

// Reads a whole regular file of less than max_size bytes, up to its first zero byte. False: the
// thread's last error tells why, and text is empty unless the file could not be opened. A file
// without content leaves text as it is.
bool ReadTextFile(const std::string& path, std::string& text, size_t max_size);
