// The plug-ins that one list file declares.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

#include "vessa2/PluginConfigItem.h"

class PluginListOrigin;

// The items of one list file in document order. Two elements with the same fkey are two items.
//
// Thread safety: none; whoever shares a list guards it.
class PluginConfigList : public std::vector<PluginConfigItem> {
  public:
    // Read a file, or a text, into this list. False: the reason is in the log, and the list is
    // as it was, or empty if the text was well formed without being a plug-in list. No memory
    // is reported by std::bad_alloc. Without an origin the items have the paths of their modules
    // as they are written, and no list file's.
    bool ParseXmlFile(const std::string& file_path, PluginListOrigin* origin = nullptr);
    bool ParseXmlString(const std::string& xml, PluginListOrigin* origin = nullptr);

    // Makes room for so many more items: appending them does not fail then.
    void MakeRoom(size_t more);

  private:
    bool ParseText(std::string& xml, PluginListOrigin* origin);
};

// Without the blanks at both ends.
std::string_view StripBlanks(std::string_view text);

// "[{fkey:a, file_path:/p/a.so, delay_load:1}, …]"
void AppendLogText(std::string& output, const PluginConfigList& list);
std::ostream& operator<<(std::ostream& stream, const PluginConfigList& list);

// Reads a whole regular file of less than max_size bytes, up to its first zero byte. False: the
// thread's last error tells why, and text is empty unless the file could not be opened. A file
// without content leaves text as it is.
bool ReadTextFile(const std::string& path, std::string& text, size_t max_size);
