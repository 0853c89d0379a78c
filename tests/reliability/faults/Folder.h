// Folder.h: a delivered application: the marked library, the modules, and the list files, which
// come and go by one system call that allocates nothing.
#ifndef VESSA_TESTS_RELIABILITY_FAULTS_FOLDER_H
#define VESSA_TESTS_RELIABILITY_FAULTS_FOLDER_H

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace faults {

// In the order of their paths.
enum List { kBase, kFirst, kSecond, kThird, kLists };

struct ListText {
    const char* name;
    std::vector<std::string> fkeys;      // as declared
    std::vector<std::string> announced;  // by its module
};
const ListText& TextOf(List list);

class Folder {
  public:
    explicit Folder(const std::string& library);

    // As at the beginning: the base and the first list.
    void Reset();
    void Come(List list);
    void Go(List list);

    const std::string& library() const { return library_; }
    // Of the first list's module that is loaded at once.
    const std::string& module() const { return module_; }

  private:
    void Declare(List list, const std::string& text);

    vessa_test::TempDir dir_;
    std::string library_;
    std::string module_;
    std::string parked_[kLists];
    std::string listed_[kLists];
};

}  // namespace faults

#endif
