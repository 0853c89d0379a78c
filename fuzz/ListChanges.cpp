// Sequences of changes of list files, against a model with a few maps. Four files with lists of a
// small grammar come, go, change and break; each round reports some of them, truly or not, and the
// model says what is declared, what is registered with which module, and which fkey gives an
// instance. Instances live across rounds. The input is the sequence of choices.
#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "skrib.h"
#include "support/ListFile.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "unit/PathRules.h"
#include "unit/PluginWorld.h"
#include "unit/RegistryModel.h"
#include "vessa2/PluginCoordinator.h"

const int vessa_fuzz::kPlants = 7;

namespace {

using vessa_fuzz::Expect;
using vessa_fuzz::ExpectSame;
using vessa_fuzz::Input;
using vessa_fuzz::Planted;
using vessa_test::RegistryModel;

constexpr size_t kFiles = 4;
constexpr int kMostRounds = 12;
constexpr size_t kMostInstances = 6;

struct Declared {
    std::string fkey;
    std::string path;
    bool delay_load = false;
};
using Declaration = std::vector<Declared>;

// What list files make of the registry.
class ChangesModel {
  public:
    // What a file holds; none: it cannot be read.
    std::map<std::string, std::optional<Declaration>> files;
    // What was read last from each known file.
    std::map<std::string, Declaration> known;
    RegistryModel registry;

    void Change(const std::vector<std::pair<std::string, int>>& changes);

  private:
    struct Entry {
        Declared item;
        bool is_registered = false;
    };

    void Collect(const std::string& file, int type);
    static std::string Key(const std::string& file, const Declared& item) {
        return item.fkey + "_" + file;
    }
    static bool Has(const Declaration& list, const std::string& fkey) {
        return std::any_of(list.begin(), list.end(),
                           [&](const Declared& item) { return item.fkey == fkey; });
    }

    static bool Moved(const Declaration& list, const Declared& item) {
        return Has(list, item.fkey) &&
               std::none_of(list.begin(), list.end(),
                            [&](const Declared& other) { return other.path == item.path; });
    }

    std::map<std::string, Entry> table_;  // by key
    std::vector<std::pair<std::string, Declared>> going_;
    std::vector<std::pair<std::string, Declared>> coming_;
};

// A file that is reported as gone is forgotten, whatever is there; every other one is read.
void ChangesModel::Collect(const std::string& file, int type) {
    const bool is_known = known.count(file) != 0;
    const Declaration before = is_known ? known[file] : Declaration();
    if (type == ConfigMonitor::kDeleted) {
        for (const Declared& item : before) going_.emplace_back(file, item);
        known.erase(file);
        return;
    }
    const std::optional<Declaration>& now = files[file];
    if (!now && !Planted(1)) return;
    const Declaration after = now ? *now : Declaration();
    for (const Declared& item : after) {
        if (!Has(before, item.fkey)) coming_.emplace_back(file, item);
        if (Planted(2) && Moved(before, item)) {
            going_.emplace_back(file, item);
            coming_.emplace_back(file, item);
        }
    }
    for (const Declared& item : before)
        if (!Has(after, item.fkey)) going_.emplace_back(file, item);
    known[file] = after;
}

// Everything goes before anything comes; what is refused is tried again with every round.
void ChangesModel::Change(const std::vector<std::pair<std::string, int>>& changes) {
    going_.clear();
    coming_.clear();
    for (const auto& [file, type] : changes) Collect(file, type);
    const auto go = [&] {
        for (const auto& [file, item] : going_) {
            const auto found = table_.find(Key(file, item));
            if (found == table_.end()) continue;
            const Entry entry = found->second;
            table_.erase(found);
            if (entry.is_registered) registry.Unregister(entry.item.fkey);
        }
    };
    if (!Planted(3)) go();
    for (const auto& [file, item] : coming_) table_.try_emplace(Key(file, item), Entry{item});
    for (auto& [key, entry] : table_) {
        if (entry.is_registered) continue;
        const Declared& item = entry.item;
        entry.is_registered =
            registry.Register(item.fkey, item.path, item.delay_load).result == VESSA_OK;
    }
    if (Planted(3)) go();
}

// A library with its files, for one input.
class World {
  public:
    explicit World(const vessa_test::TempDir& dir) : dir_(dir) {
        for (size_t i = 0; i < kFiles; ++i)
            files_.push_back(dir_.Path("list" + std::to_string(i) + ".xml"));
        coordinator_.SetPluginRoot(dir_.Path("empty"));
        coordinator_.SetConfigFilename("tarnet.xml");
        Expect(coordinator_.Run(), "no start");
    }
    ~World() {
        for (const std::string& file : files_) Remove(file);
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    void Round(Input& input);
    void End();

  private:
    void Write(Input& input, const std::string& file);
    void Remove(const std::string& file) {
        std::error_code ignored;
        std::filesystem::remove(file, ignored);
        model_.files[file] = std::nullopt;
    }
    void WriteText(const std::string& file, const std::string& text);
    std::string FileText(Input& input, const std::string& file);
    void UseInstances(Input& input);
    void Create(const std::string& fkey);
    void DestroyFirst();
    void Compare();

    const vessa_test::TempDir& dir_;
    PluginCoordinator coordinator_;
    ConfigMonitor monitor_;
    ChangesModel model_;
    std::vector<std::string> files_;
    std::vector<void*> instances_;
};

constexpr const char* kFkeys[] = {"a", "ab", "a_", "a_/", "b", " c ", "a&<", "\xC3\xA4"};

// An element of the list, in the file and in the model.
std::string World::FileText(Input& input, const std::string& file) {
    static const char* const kModules[] = {"./p/good_v2_x.so",
                                           "./q/good_v2_x.so",
                                           "./p/good_v2_y.so",
                                           "./p//./good_v2_y.so",
                                           "./missing.so",
                                           "/",
                                           "./../../../../../../../../../../../../x.so",
                                           "missing_too.so"};
    vessa_test::ListFile list;
    Declaration declaration;
    bool delay_load = false;
    for (size_t count = input.Choose(5); count > 0; --count) {
        const std::string fkey = kFkeys[input.Choose(std::size(kFkeys))];
        const std::string module = kModules[input.Choose(std::size(kModules))];
        vessa_test::ListFile::Attributes others;
        const size_t delay = input.Choose(4);
        if (delay < 2) others.emplace_back("delayload", delay == 0 ? "true" : "false");
        if (input.Choose(4) == 0) others.emplace_back("loadfkeys", "true");
        const size_t shape = input.Choose(8);
        if (shape == 0) {
            list.Plugin("  ", module, others);
            continue;
        }
        if (shape == 1) {
            list.Plugin(fkey, "", others);
            continue;
        }
        list.Plugin(fkey, module, others);
        if (delay < 2 || Planted(4)) delay_load = delay == 0;
        Declared item;
        item.fkey = fkey.substr(fkey.find_first_not_of(' '));
        item.fkey.erase(item.fkey.find_last_not_of(' ') + 1);
        item.path = vessa_test::TranscribedModulePath(file, module);
        item.delay_load = delay_load;
        declaration.push_back(item);
    }
    model_.files[file] = declaration;
    return list.Text();
}

void World::WriteText(const std::string& file, const std::string& text) {
    std::FILE* const stream = std::fopen(file.c_str(), "wb");
    Expect(stream != nullptr, "no list file");
    const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
    Expect(std::fclose(stream) == 0 && written, "no list file written");
}

void World::Write(Input& input, const std::string& file) {
    switch (input.Choose(6)) {
        case 0:
            Remove(file);
            return;
        case 1: {
            std::string text = FileText(input, file);
            // Cut in front of the end of the section.
            text.resize(text.size() - 4);
            model_.files[file] = std::nullopt;
            WriteText(file, text);
            return;
        }
        case 2:
            return;
        default:
            WriteText(file, FileText(input, file));
    }
}

void World::Round(Input& input) {
    std::vector<std::pair<std::string, int>> changes;
    std::list<ConfigMonitor::NotifyInfo> reported;
    for (size_t count = 1 + input.Choose(4); count > 0; --count) {
        const std::string& file = files_[input.Choose(kFiles)];
        const bool was_there = std::filesystem::exists(file);
        Write(input, file);
        const bool is_there = std::filesystem::exists(file);
        // Mostly as a scan would report it.
        int type = !is_there   ? ConfigMonitor::kDeleted
                   : was_there ? ConfigMonitor::kChanged
                               : ConfigMonitor::kAdded;
        const size_t lie = input.Choose(16);
        if (lie >= 1 && lie <= 3) type = static_cast<int>(lie);
        changes.emplace_back(file, type);
        reported.push_back({file, type});
    }
    coordinator_.ConfigFileChanged(monitor_, reported);
    model_.Change(changes);
    Compare();
    UseInstances(input);
    Compare();
}

void World::Create(const std::string& fkey) {
    void* made = nullptr;
    int plugin_error = 0;
    const int result = coordinator_.provider().CreateInstance(fkey, made, plugin_error);
    const RegistryModel::Outcome expected = model_.registry.Create(fkey, made);
    const int expected_result =
        Planted(5) && expected.result == VESSA_ERR_NOT_REGISTERED ? VESSA_OK : expected.result;
    Expect(result == expected_result, "another result of a create");
    if (made != nullptr) instances_.push_back(made);
}

void World::DestroyFirst() {
    if (instances_.empty()) return;
    void* const instance = instances_.front();
    instances_.erase(instances_.begin());
    int plugin_error = 0;
    const int result = coordinator_.provider().DestroyInstance(instance, plugin_error);
    Expect(result == model_.registry.Destroy(instance).result, "another result of a destroy");
}

// An fkey that is served gives an instance; the module tells which fkey it was made for.
void World::UseInstances(Input& input) {
    for (size_t count = input.Choose(4); count > 0; --count) {
        if (input.Choose(3) == 0 || instances_.size() >= kMostInstances) {
            DestroyFirst();
            continue;
        }
        const std::string fkey = kFkeys[input.Choose(std::size(kFkeys))];
        Create(fkey == " c " ? "c" : fkey);
    }
}

void World::Compare() {
    std::string declared;
    std::string expected_declared;
    std::vector<std::string> fkeys;
    coordinator_.GetAllFkeys(fkeys);
    for (const std::string& fkey : fkeys) declared += fkey + "\n";
    std::map<std::string, Declared> first;
    for (const auto& [file, declaration] : model_.known) {
        for (const Declared& item : declaration) {
            expected_declared += item.fkey + "\n";
            first.emplace(item.fkey, item);
        }
    }
    if (Planted(6) && !expected_declared.empty()) expected_declared += "x\n";
    ExpectSame(declared, expected_declared, "the declared fkeys");
    for (const auto& [fkey, item] : first) {
        PluginConfigItem found;
        Expect(coordinator_.FindPluginConfig(fkey.c_str(), found), "an fkey that is not found");
        ExpectSame(found.file_path(), item.path, "the module of an fkey");
        Expect(found.delay_load() == item.delay_load, "another flag of an fkey");
    }
    std::string registered;
    for (const auto& [fkey, record] : PluginProviderAccess::Collection(coordinator_.provider()))
        registered += fkey + " " + record->file_path() + (record->IsUnregistered() ? " gone" : "") +
                      (record->delay_load() ? " delayed\n" : "\n");
    std::string expected;
    for (const auto& [fkey, entry] : model_.registry.entries)
        expected += fkey + " " + entry.path + (entry.is_unregistered ? " gone" : "") +
                    (entry.delay_load && !Planted(7) ? " delayed\n" : "\n");
    ExpectSame(registered, expected, "what is registered");
}

void World::End() {
    while (!instances_.empty()) DestroyFirst();
    Compare();
    Expect(coordinator_.Shutdown(), "no stop");
    Expect(coordinator_.provider().IsEmpty(), "something is left in the registry");
    Expect(PluginLoaderAccess::Collection(PluginLoader::Instance()).empty(),
           "a module is still held");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static vessa_test::TempDir dir;
    static const bool is_made = [] {
        dir.MakeFolder("empty");
        for (const char* const module : {"p/good_v2_x.so", "q/good_v2_x.so", "p/good_v2_y.so"}) {
            // Kept in memory: to load and unload it each time is what takes longest.
            const std::string path = vessa_test::Install(dir, "good_v2", module);
            Expect(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL) != nullptr, "no module");
        }
        return true;
    }();
    static_cast<void>(is_made);
    Input input(data, size);
    vessa_fuzz::DropLog(input.Choose(2) == 0 ? SKRIB_LEVEL_OFF : SKRIB_LEVEL_WARNING);
    World world(dir);
    for (int round = 0; round < kMostRounds && !input.AtEnd(); ++round) world.Round(input);
    world.End();
    return 0;
}
