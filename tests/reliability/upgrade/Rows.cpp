#include "reliability/upgrade/Rows.h"

#include <algorithm>
#include <sstream>

namespace upgrade {
namespace {

constexpr char kModule[] = "The module's file alone";
constexpr char kListFile[] = "The list's file";
constexpr char kDeclared[] = "What the list declares";
constexpr char kSteps[] = "Steps";

constexpr char kRegistered[] = "register plugin succeeded, fkey ";
constexpr char kUnregistered[] = "unregister plugin succeeded, fkey ";
constexpr char kPutOff[] = "unexpected, some plugin not destroyed, unload pluin later, fkey ";
constexpr char kAgain[] =
    "plugin already unregistered, but not unload yet, now register again, plugin fkey ";
constexpr char kShared[] = "the same plugin file path, different plugin filenames, fkey ";
constexpr char kLoadFailed[] = "load plugin failed ";
constexpr char kNotRead[] = "read plugin list config failed, ignored, file path ";
constexpr char kOtherPath[] = "config file changed, but not fkey, fkey ";
constexpr char kRefused[] = "register plugin failed -2147483635/";

constexpr Outcome kForbidden{"forbidden", nullptr};
// The plug-in stays as it was, whatever happened to its files.
constexpr Outcome kStays{"1, 1", nullptr};
constexpr Outcome kStaysInUse{"1, 1, 1", nullptr};
// The next load takes what is there by then.
constexpr Outcome kNextLoad{"2, 2", nullptr};
// The key goes with the scan, the module at once or with the last instance.
constexpr Outcome kGoes{"1, gone", kUnregistered};
constexpr Outcome kGoesInUse{"1, going, gone", kPutOff};

void ModuleByRename(Deployment& at) {
    at.Rename("codec.so", Deployment::Bytes(Deployment::Release(2)));
}
void EmptyList(Deployment& at) {
    at.Rename("tarnet.xml", at.List(""));
}

const std::vector<Row> kRows = {
    {kModule, "replaced by rename", Form::kPlain, "codec", ModuleByRename, kNextLoad, kStays,
     kStaysInUse},
    {kModule, "its link switched", Form::kLinkedModule, "codec",
     [](Deployment& at) { at.Link("2/codec.so", "codec.so"); }, kNextLoad, kStays, kStaysInUse},
    {kModule, "the link to its folder switched, the list's too", Form::kLinkedFolder, "codec",
     [](Deployment& at) { at.Link("2", "current"); }, kNextLoad, kStays, kStaysInUse},
    {kModule, "deleted, then put in place anew", Form::kPlain, "codec",
     [](Deployment& at) {
         at.Remove("codec.so");
         ModuleByRename(at);
     },
     kNextLoad, kStays, kStaysInUse},
    {kModule,
     "deleted",
     Form::kPlain,
     "codec",
     [](Deployment& at) { at.Remove("codec.so"); },
     {"no file, no file", kLoadFailed},
     kStays,
     kStaysInUse},
    {kModule, "written over in place", Form::kPlain, "codec",
     [](Deployment& at) { at.WriteOver("codec.so", Deployment::Bytes(Deployment::Release(2))); },
     kNextLoad, kForbidden, kForbidden},
    {kModule,
     "written over in place, half of it so far",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         const std::string all = Deployment::Bytes(Deployment::Release(2));
         at.WriteOver("codec.so", all.substr(0, all.size() / 2));
     },
     {"not loadable, not loadable", kLoadFailed},
     kForbidden,
     kForbidden},
    {kModule,
     "cut short in place",
     Form::kPlain,
     "codec",
     [](Deployment& at) { at.CutTo("codec.so", 100); },
     {"not loadable, not loadable", kLoadFailed},
     kForbidden,
     kForbidden},

    {kListFile, "replaced by rename, the key removed", Form::kPlain, "codec", EmptyList, kGoes,
     kGoes, kGoesInUse},
    {kListFile, "written over in place, the key removed", Form::kPlain, "codec",
     [](Deployment& at) { at.WriteOver("tarnet.xml", at.List("")); }, kGoes, kGoes, kGoesInUse},
    {kListFile, "its link switched to a list without the key", Form::kLinkedList, "codec",
     [](Deployment& at) {
         at.Keep("2/tarnet.xml", at.List(""));
         at.Link("2/tarnet.xml", "tarnet.xml");
     },
     kGoes, kGoes, kGoesInUse},
    {kListFile,
     "the link to its folder switched, the key removed",
     Form::kLinkedFolder,
     "codec",
     [](Deployment& at) {
         at.Keep("2/tarnet.xml", at.List(""));
         at.Link("2", "current");
     },
     {"2, gone", kUnregistered},
     kGoes,
     kGoesInUse},
    {kListFile, "deleted", Form::kPlain, "codec", [](Deployment& at) { at.Remove("tarnet.xml"); },
     kGoes, kGoes, kGoesInUse},
    {kListFile, "deleted, and it was the last list below the root", Form::kPlain, "codec",
     [](Deployment& at) {
         at.Remove("z");
         at.Remove("tarnet.xml");
     },
     kStays, kStays, kStaysInUse},
    {kListFile, "deleted and written anew before the next scan, unchanged", Form::kPlain, "codec",
     [](Deployment& at) {
         at.Remove("tarnet.xml");
         at.Rename("tarnet.xml", at.FirstList());
     },
     kStays, kStays, kStaysInUse},
    {kListFile,
     "deleted, and written anew after a scan, unchanged",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         at.Remove("tarnet.xml");
         at.Scan();
         at.Rename("tarnet.xml", at.FirstList());
     },
     {"gone, 1", kRegistered},
     {"gone, 1", kRegistered},
     {"going, 1, 1", kAgain}},
    {kListFile,
     "cut to nothing in place",
     Form::kPlain,
     "codec",
     [](Deployment& at) { at.CutTo("tarnet.xml", 0); },
     {"1, 1", kNotRead},
     {"1, 1", kNotRead},
     {"1, 1, 1", kNotRead}},
    {kListFile,
     "written over in place, half of it so far",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         const std::string all = at.List("");
         at.WriteOver("tarnet.xml", all.substr(0, all.size() / 2));
     },
     {"1, 1", kNotRead},
     {"1, 1", kNotRead},
     {"1, 1, 1", kNotRead}},
    {kListFile, "replaced by rename, unchanged", Form::kPlain, "codec",
     [](Deployment& at) { at.Rename("tarnet.xml", at.FirstList()); }, kStays, kStays, kStaysInUse},

    {kDeclared, "the key with the same module, which was replaced by rename", Form::kPlain, "codec",
     [](Deployment& at) {
         ModuleByRename(at);
         at.Rename("tarnet.xml", at.FirstList());
     },
     kNextLoad, kStays, kStaysInUse},
    {kDeclared,
     "the key with another module",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         at.Rename("codec-2.so", Deployment::Bytes(Deployment::Release(2)));
         at.Rename("tarnet.xml", at.List("codec=./codec-2.so"));
     },
     {"1, 1", kOtherPath},
     {"1, 1", kOtherPath},
     {"1, 1, 1", kOtherPath}},
    {kDeclared,
     "the key in another list, the module replaced by rename",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         ModuleByRename(at);
         at.Rename("z/tarnet.xml", at.List("codec=../codec.so"));
         EmptyList(at);
     },
     {"2, 2", kRegistered},
     {"1, 2", kRegistered},
     {"1, 1, 1", kAgain}},
    {kDeclared,
     "the key in another list with another module",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         at.Rename("codec-2.so", Deployment::Bytes(Deployment::Release(2)));
         at.Rename("z/tarnet.xml", at.List("codec=../codec-2.so"));
         EmptyList(at);
     },
     {"1, 2", kRegistered},
     {"1, 2", kRegistered},
     {"1, going, gone", kRefused}},
    {kDeclared,
     "a second key with a module of its own: what serves the second",
     Form::kPlain,
     "codec2",
     [](Deployment& at) {
         at.Rename("codec-2.so", Deployment::Bytes(Deployment::Release(2)));
         at.Rename("tarnet.xml", at.List("codec=./codec.so codec2=./codec-2.so"));
     },
     {"absent, 2", kRegistered},
     {"absent, 2", kRegistered},
     {"absent, 2, 2", kRegistered}},
    {kDeclared,
     "a second key with the same module, which was replaced by rename: what serves the second",
     Form::kPlain,
     "codec2",
     [](Deployment& at) {
         ModuleByRename(at);
         at.Rename("tarnet.xml", at.List("codec=./codec.so codec2=./codec.so"));
     },
     {"absent, 2", kShared},
     {"absent, 1", kShared},
     {"absent, 1, 1", kShared}},
    {kDeclared,
     "a second key with a module of the same file name in another folder: what serves the second",
     Form::kPlain,
     "codec2",
     [](Deployment& at) {
         at.Rename("new/codec.so", Deployment::Bytes(Deployment::Release(2)));
         at.Rename("new/tarnet.xml", at.List("codec2=./codec.so"));
     },
     {"absent, absent", kRefused},
     {"absent, absent", kRefused},
     {"absent, absent, absent", kRefused}},
    {kDeclared,
     "a second key whose module is not there yet: what serves the second",
     Form::kPlain,
     "codec2",
     [](Deployment& at) {
         at.Rename("tarnet.xml", at.List("codec=./codec.so codec2=./codec-2.so"));
     },
     {"absent, no file", kLoadFailed},
     {"absent, no file", kLoadFailed},
     {"absent, no file, no file", kLoadFailed}},
    {kDeclared,
     "the same, and the module comes after the scan: what serves the second",
     Form::kPlain,
     "codec2",
     [](Deployment& at) {
         at.Rename("tarnet.xml", at.List("codec=./codec.so codec2=./codec-2.so"));
         at.Scan();
         at.Rename("codec-2.so", Deployment::Bytes(Deployment::Release(2)));
     },
     {"2, 2", kRegistered},
     {"2, 2", kLoadFailed},
     {"2, 2, 2", kLoadFailed}},

    {kSteps,
     "upgrade: module by rename; list without the key; scan; last instance goes; list with the key",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         ModuleByRename(at);
         EmptyList(at);
         at.Scan();
         at.LastInstanceGoes();
         at.Rename("tarnet.xml", at.FirstList());
     },
     {"gone, 2", kRegistered},
     {"gone, 2", kRegistered},
     {"gone, 2, 2", kPutOff}},
    {kSteps,
     "the same, but the last instance stays",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         ModuleByRename(at);
         EmptyList(at);
         at.Scan();
         at.Rename("tarnet.xml", at.FirstList());
     },
     {"gone, 2", kRegistered},
     {"gone, 2", kRegistered},
     {"going, 1, 1", kAgain}},
    {kSteps,
     "upgrade to another file name: module; list without the key; scan; last instance goes; list "
     "with the key and the new name",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         at.Rename("codec-2.so", Deployment::Bytes(Deployment::Release(2)));
         EmptyList(at);
         at.Scan();
         at.LastInstanceGoes();
         at.Rename("tarnet.xml", at.List("codec=./codec-2.so"));
     },
     {"gone, 2", kRegistered},
     {"gone, 2", kRegistered},
     {"gone, 2, 2", kPutOff}},
    {kSteps,
     "upgrade of a linked folder: switch; list without the key; scan; last instance goes; list "
     "with "
     "the key",
     Form::kLinkedFolder,
     "codec",
     [](Deployment& at) {
         at.Link("2", "current");
         at.Keep("2/tarnet.xml", at.List(""));
         at.Scan();
         at.LastInstanceGoes();
         at.Rename("current/tarnet.xml", at.FirstList());
     },
     {"gone, 2", kRegistered},
     {"gone, 2", kRegistered},
     {"gone, 2, 2", kPutOff}},
    {kSteps,
     "the key in another list with another module, and once its last instance is gone any list "
     "changes",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         at.Rename("codec-2.so", Deployment::Bytes(Deployment::Release(2)));
         at.Rename("z/tarnet.xml", at.List("codec=../codec-2.so"));
         EmptyList(at);
         at.Scan();
         at.LastInstanceGoes();
         at.Rename("y/tarnet.xml", at.List(""));
     },
     {"2, 2", kRegistered},
     {"2, 2", kRegistered},
     {"gone, 2, 2", kRefused}},
    {kSteps,
     "install: module, then list: what serves the new key",
     Form::kPlain,
     "codec2",
     [](Deployment& at) {
         at.Rename("new/other.so", Deployment::Bytes(Deployment::Release(2)));
         at.Rename("new/tarnet.xml", at.List("codec2=./other.so"));
     },
     {"absent, 2", kRegistered},
     {"absent, 2", kRegistered},
     {"absent, 2, 2", kRegistered}},
    {kSteps,
     "remove: list; scan; last instance goes; module",
     Form::kPlain,
     "codec",
     [](Deployment& at) {
         at.Remove("tarnet.xml");
         at.Scan();
         at.LastInstanceGoes();
         at.Remove("codec.so");
     },
     {"gone, gone", kUnregistered},
     {"gone, gone", kUnregistered},
     {"gone, gone, gone", kPutOff}},
};

std::vector<std::string> WordsOf(const std::string& seen) {
    std::vector<std::string> words;
    std::istringstream all(seen);
    for (std::string word; std::getline(all, word, ',');)
        words.push_back(word.substr(word.find_first_not_of(' ')));
    return words;
}

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

constexpr int kInformation = 3;

// Warnings and errors beside a line that is none are not documented.
void CompareLines(const Outcome& outcome, const std::vector<vessa_test::LogRecord>& log,
                  std::vector<std::string>& differences) {
    bool is_there = outcome.line == nullptr;
    bool may_warn = false;
    for (const vessa_test::LogRecord& record : log) {
        if (outcome.line == nullptr || !BeginsWith(record.text, outcome.line)) continue;
        is_there = true;
        may_warn = may_warn || record.level > kInformation;
    }
    if (!is_there) differences.push_back("the line is missing: " + std::string(outcome.line));
    if (may_warn) return;
    for (const vessa_test::LogRecord& record : log) {
        if (record.level > kInformation)
            differences.push_back("undocumented line: " + record.Line());
    }
}

std::string Shortened(const char* line) {
    return line == nullptr ? "–" : "`" + std::string(line) + "…`";
}

}  // namespace

const Outcome& Row::In(State state) const {
    return state == State::kNotLoaded ? not_loaded : state == State::kLoaded ? loaded : in_use;
}

std::string Row::InDocument() const {
    const auto bold = [](const Outcome& outcome) {
        return outcome.IsForbidden() ? std::string("**forbidden**") : std::string(outcome.seen);
    };
    std::string lines = Shortened(not_loaded.line);
    for (const State state : {State::kLoaded, State::kInUse}) {
        const std::string line = Shortened(In(state).line);
        if (In(state).IsForbidden() || lines.find(line) != std::string::npos) continue;
        lines += (state == State::kLoaded ? "; loaded: " : "; in use: ") + line;
    }
    return "| " + std::string(change) + " | " + bold(not_loaded) + " | " + bold(loaded) + " | " +
           bold(in_use) + " | " + lines + " |";
}

const std::vector<Row>& Rows() {
    return kRows;
}

// Each look is at a deployment of its own, because looking makes an instance, which loads.
std::vector<std::string> Differences(const Row& row, State state) {
    std::vector<std::string> differences;
    const Outcome& outcome = row.In(state);
    const std::vector<std::string> documented = WordsOf(outcome.seen);
    for (size_t look = 0; look < documented.size(); ++look) {
        Deployment deployment(state, row.form);
        row.apply(deployment);
        if (look >= 1) deployment.Scan();
        if (look >= 2) deployment.LastInstanceGoes();
        const std::string seen = deployment.Observe(row.key);
        if (seen != documented[look])
            differences.push_back("look " + std::to_string(look + 1) + ": documented " +
                                  documented[look] + ", seen " + seen);
        const std::string surprise = deployment.LiveSurprise();
        if (!surprise.empty()) differences.push_back(surprise);
        if (look + 1 == documented.size()) CompareLines(outcome, deployment.Log(), differences);
    }
    return differences;
}

std::vector<std::string> DifferencesOf(const std::string& document) {
    std::vector<std::string> shown;
    std::istringstream lines(document);
    std::string section;
    for (std::string line; std::getline(lines, line);) {
        if (BeginsWith(line, "## ")) section = line.substr(3);
        const bool is_head = BeginsWith(line, "| Change ") || BeginsWith(line, "|-");
        if (BeginsWith(line, "|") && !is_head) shown.push_back(section + ": " + line);
    }
    std::vector<std::string> differences;
    for (const Row& row : kRows) {
        const std::string line = row.section + std::string(": ") + row.InDocument();
        const auto found = std::find(shown.begin(), shown.end(), line);
        if (found == shown.end())
            differences.push_back("missing under " + line);
        else
            shown.erase(found);
    }
    for (const std::string& line : shown) differences.push_back("no such row under " + line);
    return differences;
}

}  // namespace upgrade
