// GrowingFile.h: a file that grows or shrinks between the look at its size and the reading of its
// bytes, each time. The program's own read() does it.
#pragma once

#include <string>

namespace vessa_lists {

// One at a time. Does nothing for another kind than "grows" and "shrinks".
class GrowingFile {
  public:
    GrowingFile(const std::string& path, const std::string& kind);
    ~GrowingFile();
    GrowingFile(const GrowingFile&) = delete;
    GrowingFile& operator=(const GrowingFile&) = delete;

    // Whether the file was read, and so changed; true if it was not to change.
    bool HasHappened() const;
};

}  // namespace vessa_lists
