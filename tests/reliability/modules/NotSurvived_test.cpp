// What a host does not survive: each is shown once in a child, so that the list in
// docs/plugin-authors.md, "What the host cannot survive", says what is so.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "modules/Files.h"
#include "support/Child.h"

namespace hostile {
namespace {

using vessa_test::ChildOptions;
using vessa_test::ChildResult;

// To come to the act, and to be seen not to come back.
#if defined(VESSA_SANITIZED)
constexpr std::chrono::milliseconds kLongEnough{15000};
#else
constexpr std::chrono::milliseconds kLongEnough{6000};
#endif

enum class End { kHangs, kExits, kIsKilled };

struct Case {
    std::string module;
    std::string operation;  // empty: in its global objects, or by what it returns
    End end;
    std::string listed;  // the beginning of the sentence in the guide's list
    bool says_begin = true;

    std::string Name() const {
        std::string name = module.substr(module.find('/') + 1);
        return operation.empty() ? name : name + "_in_" + operation;
    }
};

std::ostream& operator<<(std::ostream& out, const Case& one) {
    return out << one.Name();
}

std::vector<Case> AllCases() {
    std::vector<Case> cases;
    for (const char* operation :
         {"Entry", "Init", "Uninit", "CreateInstance", "DestroyInstance", "QueryInterface",
          "GetFileVersion", "GetAllInterfaceIkeys", "GetPluginMapFkeys"}) {
        cases.push_back({"hostile/hangs", operation, End::kHangs, "An operation that never ends"});
        cases.push_back({"hostile/exits", operation, End::kExits, "`exit`"});
    }
    for (const char* operation : {"Init", "CreateInstance"}) {
        cases.push_back({"hostile/aborts", operation, End::kIsKilled, "`abort`"});
        cases.push_back({"hostile/crashes", operation, End::kIsKilled, "A crash"});
    }
    cases.push_back({"hostile/closes_itself", "Init", End::kIsKilled, "Unloading itself"});
    cases.push_back(
        {"hostile/leaves_thread", "Init", End::kIsKilled, "A thread that outlives the module"});
    // tarnet.h, law 4: the stop has unregistered the other plug-in before.
    cases.push_back({"hostile/joins_user", "", End::kHangs, "Waiting in `Uninit` for a thread"});
    cases.push_back({"hostile/constructor_throws", "", End::kIsKilled,
                     "A global object whose constructor throws"});
    cases.push_back({"hostile/destructor_throws", "", End::kIsKilled,
                     "A global object whose destructor throws"});
    for (const char* when : {"constructor", "destructor"}) {
        const std::string prefix = std::string("hostile/") + when;
        const std::string listed = "A global object that crashes";
        cases.push_back({prefix + "_crashes", "", End::kIsKilled, listed});
        cases.push_back({prefix + "_hangs", "", End::kHangs, listed});
        cases.push_back({prefix + "_exits", "", End::kExits, listed});
    }
    for (const char* module : {"entry_nowhere", "ikeys_nowhere", "version_nowhere"})
        cases.push_back({std::string("hostile/") + module, "", End::kIsKilled,
                         "A pointer into nowhere", false});
    return cases;
}

// The thread sanitizer does not like an exit out of the system's loader, and says so with a status
// of its own.
bool HasExited(const ChildResult& result) {
    return result.Exited(7) ||
           result.err.find("finished with ignores enabled") != std::string::npos;
}

bool IsKilled(const ChildResult& result) {
#if defined(VESSA_SANITIZED)
    // The sanitizer reports the signal and exits.
    if (result.err.find("Sanitizer") != std::string::npos) return !HasExited(result);
#endif
    return result.Crashed();
}

class NotSurvived : public testing::TestWithParam<Case> {};

TEST_P(NotSurvived, TheHostEndsWithIt) {
    HostileWorld world(false);
    vessa_test::Install(world.dir, GetParam().module, kModulePath);
    ChildOptions host = world.Host(1);
    if (!GetParam().operation.empty()) host.environment["HOSTILE_OPERATION"] = GetParam().operation;
    if (GetParam().end == End::kHangs) host.watchdog = kLongEnough;
    const ChildResult result = RunChild(host);
    EXPECT_EQ(result.hung, GetParam().end == End::kHangs) << result;
    EXPECT_EQ(HasExited(result), GetParam().end == End::kExits) << result;
    EXPECT_EQ(IsKilled(result), GetParam().end == End::kIsKilled) << result;
    EXPECT_EQ(result.out.find("\nend\n"), std::string::npos) << result;
    // It was this very act.
    const bool began = result.out.find("act begins\n") != std::string::npos;
    EXPECT_EQ(began, GetParam().says_begin) << result;
}

TEST(NotSurvivedList, NamesEachOfThemForAuthors) {
    std::ifstream file(PLUGIN_AUTHORS);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const std::size_t section = text.find("## What the host cannot survive");
    ASSERT_NE(section, std::string::npos);
    for (const Case& one : AllCases())
        EXPECT_NE(text.find("* **" + one.listed, section), std::string::npos) << one.listed;
}

INSTANTIATE_TEST_SUITE_P(Acts, NotSurvived, testing::ValuesIn(AllCases()),
                         [](const auto& one) { return one.param.Name(); });

}  // namespace
}  // namespace hostile
