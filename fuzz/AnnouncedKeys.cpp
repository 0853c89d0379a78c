// The further fkeys that a module announces, against a slow model of what is to be made of them.
// The module is real; its two answers come from the input: the count of the first, and of the
// second the count and the bytes of the entries.
#include <algorithm>
#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "skrib.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "unit/ConfigItems.h"
#include "unit/PluginWorld.h"
#include "vessa2/PluginCoordinator.h"

const int vessa_fuzz::kPlants = 6;

namespace {

using vessa_fuzz::Expect;
using vessa_fuzz::Input;
using vessa_fuzz::Planted;
using Strings = std::vector<std::string>;

constexpr size_t kEntryBytes = 256;
constexpr int kMostEntries = 40;

// What the module answers. It fills no more entries than it may.
struct Answers {
    bool throws = false;
    int first_result = 0;
    int first_count = 0;
    int second_result = 0;
    int second_count = 0;
    std::vector<std::string> entries;  // their bytes
};

int TakeCount(Input& input) {
    switch (input.Choose(6)) {
        case 0:
            return INT_MAX;
        case 1:
            return -static_cast<int>(input.Byte());
        case 2:
            return INT_MIN;
        default:
            return static_cast<int>(input.Choose(kMostEntries + 1));
    }
}

bool IsHuge(int count) {
    return count > kMostEntries;
}

Answers TakeAnswers(Input& input) {
    Answers answers;
    answers.throws = input.Choose(8) == 7;
    answers.first_result = input.Choose(4) == 3 ? 5 : 0;
    answers.second_result = input.Choose(4) == 3 ? 6 : 0;
    answers.first_count = TakeCount(input);
    answers.second_count = input.Choose(3) == 0 ? answers.first_count : TakeCount(input);
    if (IsHuge(answers.first_count)) {
        // Where there should be memory for so many, nobody wants to look at all of them.
        answers.throws = false;
        answers.second_count = static_cast<int>(input.Choose(kMostEntries + 1));
    }
    while (!input.AtEnd() && answers.entries.size() < kMostEntries) {
        // A length of 255 stands for a whole entry without an end.
        std::string entry = input.Text();
        if (entry.size() == kEntryBytes - 1) entry += 'e';
        answers.entries.push_back(entry);
    }
    return answers;
}

// The rules: a first count below one is none; the second is cut to the first; an entry ends at its
// first zero byte or with its 256th.
Strings Expected(const Answers& answers) {
    if (answers.first_count < 1) return {};
    int count = answers.throws ? answers.first_count : answers.second_count;
    if (count > answers.first_count && !Planted(1)) count = answers.first_count;
    if (Planted(2) && answers.second_result != 0) count = 0;
    Strings fkeys;
    for (int i = 0; i < count && i < (Planted(1) ? 100 : INT_MAX); ++i) {
        const auto at = static_cast<size_t>(i);
        std::string fkey = at < answers.entries.size() ? answers.entries[at] : "";
        fkey = fkey.substr(0, fkey.find('\0'));
        if (Planted(3) && fkey.size() == kEntryBytes) fkey.pop_back();
        if (Planted(4) && fkey.empty()) continue;
        fkeys.push_back(fkey);
    }
    return fkeys;
}

class World {
  public:
    World() {
        item_.fkey = "p";
        item_.file_path = vessa_test::Install(dir_, "map_two", "map_two.so");
        item_.load_fkeys = true;
        item_.config_file_path = "/list";
        item_.attributes = {{"fkey", "p"}, {"vendor", "v"}};
    }

    void Run(const Answers& answers);

  private:
    void Answer(const Answers& answers, vessa_test::ModuleCall& call);
    void CheckItems(const PluginConfigList& mapped, const Strings& expected);
    void CheckRegistered(const PluginConfigList& mapped, const Strings& expected);
    bool IsServed(const std::string& fkey);

    vessa_test::TempDir dir_;
    vessa_test::ModuleHook hook_;
    PluginCoordinator coordinator_;
    vessa_test::ItemFields item_;
};

void World::Answer(const Answers& answers, vessa_test::ModuleCall& call) {
    if (call.fkeys == nullptr) {
        *call.count = answers.first_count;
        call.Return(answers.first_result);
        return;
    }
    Expect(*call.count == answers.first_count, "the module is given its own count");
    for (size_t i = 0; i < answers.entries.size() && i < static_cast<size_t>(*call.count); ++i)
        std::memcpy(call.fkeys[i], answers.entries[i].data(), answers.entries[i].size());
    if (answers.throws) throw 1;
    *call.count = answers.second_count;
    call.Return(answers.second_result);
}

void World::CheckItems(const PluginConfigList& mapped, const Strings& expected) {
    Expect(mapped.size() == expected.size(), "another number of fkeys");
    const PluginConfigItem own = item_.Make();
    for (size_t i = 0; i < expected.size(); ++i) {
        vessa_fuzz::ExpectSame(mapped[i].fkey(), expected[i], "an fkey");
        Expect(mapped[i].file_path() == own.file_path(), "another module");
        Expect(mapped[i].config_file_path() == own.config_file_path(), "another list file");
        Expect(!mapped[i].load_fkeys() && !mapped[i].delay_load(), "other flags");
        Expect(vessa_test::AttributesOf(mapped[i]) == item_.attributes, "other attributes");
    }
}

bool World::IsServed(const std::string& fkey) {
    void* instance = nullptr;
    int plugin_error = 0;
    PluginProvider& provider = coordinator_.provider();
    if (provider.CreateInstance(fkey, instance, plugin_error) != 0) return false;
    Expect(provider.DestroyInstance(instance, plugin_error) == 0, "no way to destroy it");
    return true;
}

// Every one is served from its registration to its end, except one without bytes.
void World::CheckRegistered(const PluginConfigList& mapped, const Strings& expected) {
    coordinator_.RegisterPluginList(mapped);
    std::set<std::string> known(expected.begin(), expected.end());
    known.insert("p");
    if (!Planted(5)) known.erase("");
    std::set<std::string> registered;
    for (const auto& [fkey, record] : PluginProviderAccess::Collection(coordinator_.provider()))
        registered.insert(fkey);
    Expect(registered == known, "others are registered than were announced");
    for (const std::string& fkey : known) Expect(IsServed(fkey), "an fkey that is not served");
    coordinator_.UnregisterPluginList(mapped);
    // Its own goes with them when it was announced.
    const bool keeps_own = std::find(expected.begin(), expected.end(), "p") == expected.end();
    for (const std::string& fkey : known)
        Expect(IsServed(fkey) == (fkey == "p" && keeps_own), "an fkey that is served at its end");
}

void World::Run(const Answers& answers) {
    PluginProvider& provider = coordinator_.provider();
    Expect(provider.RegisterPlugin("p", item_.file_path, false) == 0, "not registered");
    hook_.On("map_two", "GetPluginMapFkeys",
             [&](vessa_test::ModuleCall& call) { Answer(answers, call); });
    PluginConfigList list;
    list.push_back(item_.Make());
    PluginConfigList mapped;
    coordinator_.StatisticsLoadFkeys(list, mapped);
    // So many entries may be more than there is memory for.
    const bool is_none = IsHuge(answers.first_count) && mapped.empty();
    Strings expected = is_none ? Strings() : Expected(answers);
    if (Planted(6) && !expected.empty()) expected.back() += 'x';
    CheckItems(mapped, expected);
    CheckRegistered(mapped, expected);
    hook_.Clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vessa_fuzz::DropLog(SKRIB_LEVEL_WARNING);
    static World world;
    Input input(data, size);
    world.Run(TakeAnswers(input));
    return 0;
}
