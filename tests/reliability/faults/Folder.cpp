#include "Folder.h"

#include <unistd.h>

#include <cstdlib>

#include "support/ListFile.h"
#include "support/Modules.h"

namespace faults {
namespace {

using vessa_test::Install;
using vessa_test::ListFile;

constexpr int kEntries = 20;

std::vector<std::string> FirstKeys() {
    std::vector<std::string> keys;
    for (int i = 0; i < kEntries; ++i) keys.push_back("k" + std::to_string(100 + i));
    return keys;
}

// The first third of the keys is of a module that is loaded at once, the others of two that wait
// for their first instance.
std::string FirstText() {
    ListFile list;
    const std::vector<std::string>& keys = TextOf(kFirst).fkeys;
    for (int i = 0; i < kEntries; ++i) {
        const char* const file = i < 7 ? "./a.so" : i < 14 ? "./b.so" : "./c.so";
        list.Plugin(keys[static_cast<size_t>(i)], file,
                    {{"delayload", i < 7 ? "false" : "true"}, {"about", "entry"}});
    }
    return list.Text();
}

}  // namespace

const ListText& TextOf(List list) {
    static const ListText texts[kLists] = {
        {"base", {"base"}, {}},
        {"first", FirstKeys(), {}},
        {"second", {"s1", "s2", "s3"}, {}},
        {"third", {"m"}, {"a", "b"}},
    };
    return texts[list];
}

Folder::Folder(const std::string& library) {
    library_ = dir_.CopyFile(library, "libvessa.so.2");
    Install(dir_, "good_v2", "tarnet/base/e.so");
    module_ = Install(dir_, "good_v2", "tarnet/first/a.so");
    Install(dir_, "good_v1", "tarnet/first/b.so");
    Install(dir_, "good_v2", "tarnet/first/c.so");
    Install(dir_, "good_v2", "tarnet/second/d.so");
    Install(dir_, "map_two", "tarnet/third/m.so");

    Declare(kBase, ListFile().Plugin("base", "./e.so", {{"delayload", "true"}}).Text());
    Declare(kFirst, FirstText());
    ListFile second;
    for (const std::string& key : TextOf(kSecond).fkeys)
        second.Plugin(key, "./d.so", {{"delayload", "true"}});
    Declare(kSecond, second.Text());
    Declare(kThird, ListFile().Plugin("m", "./m.so", {{"loadfkeys", "true"}}).Text());
}

void Folder::Declare(List list, const std::string& text) {
    const std::string name = TextOf(list).name;
    parked_[list] = dir_.Write("parked/" + name + ".xml", text);
    listed_[list] = dir_.Path("tarnet/" + name + "/tarnet.xml");
}

void Folder::Reset() {
    for (const List list : {kBase, kFirst, kSecond, kThird}) unlink(listed_[list].c_str());
    Come(kBase);
    Come(kFirst);
}

// A link changes the file's own time, so that a list that comes again is another one.
void Folder::Come(List list) {
    if (link(parked_[list].c_str(), listed_[list].c_str()) != 0) std::abort();
}

void Folder::Go(List list) {
    if (unlink(listed_[list].c_str()) != 0) std::abort();
}

}  // namespace faults
