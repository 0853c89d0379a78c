#include "reliability/lists/Examine.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <list>
#include <set>
#include <sstream>
#include <stdexcept>

#include "reliability/lists/GrowingFile.h"
#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/Modules.h"
#include "support/TempDir.h"
#include "unit/PluginWorld.h"
#include "vessa2/PluginCoordinator.h"

namespace vessa_lists {
namespace {

using vessa_test::LogCapture;
using vessa_test::TempDir;
using Strings = std::vector<std::string>;

constexpr int kWarnings = 4;
const char* const kListName = "tarnet.xml";
// Ends a child that hangs.
constexpr unsigned kWatchdogSeconds = 300;

long ThreadProcessorMs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// In KiB, of this process.
long StatusValue(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, name.size() + 1, name + ":") == 0)
            return std::stol(line.substr(name.size() + 1));
    throw std::runtime_error("no " + name);
}

std::string Joined(const Strings& texts) {
    std::string joined;
    for (const std::string& text : texts) {
        if (joined.size() > 600) return joined + "...";
        joined += (joined.empty() ? "" : " | ") + text.substr(0, 300);
    }
    return "[" + joined + "]";
}

std::string WithPath(std::string line, const std::string& path) {
    for (size_t at = line.find("{path}"); at != std::string::npos; at = line.find("{path}"))
        line.replace(at, 6, path);
    return line;
}

// One child's library, with a good list beside the one that is examined.
class World {
  public:
    explicit World(Examination& examination) : examination_(examination), log_(kWarnings) {
        vessa_test::Install(dir_, "good_v2", "z_good/good.so");
        dir_.Write(std::string("z_good/") + kListName,
                   vessa_test::ListFile().Plugin("good", "./good.so").Text());
    }

    void MeetNew(const ListCase& list_case, const std::function<void()>& planted);
    void MeetAsAChange(const ListCase& list_case, const std::function<void()>& planted);
    void MeetCuts(const ListCase& list_case);

  private:
    using Changes = std::list<ConfigMonitor::NotifyInfo>;

    void Start(PluginCoordinator& coordinator) {
        coordinator.SetPluginRoot(dir_.Path());
        coordinator.SetConfigFilename(kListName);
    }
    void Problem(const std::string& step, const std::string& text) {
        if (examination_.problems.size() < 20) examination_.problems.push_back(step + ": " + text);
    }
    template <class Work>
    void Measure(const std::string& step, const ListCase& list_case, const std::string& path,
                 Work work);
    void ExpectRegistered(const std::string& step, PluginCoordinator& coordinator,
                          const Strings& declared, const std::set<std::string>& unregistered);
    void ExpectLog(const std::string& step, const ListCase& list_case, const std::string& path,
                   int notify_type);
    void ExpectGoodIsServed(const std::string& step, PluginCoordinator& coordinator);
    void Expect(const std::string& step, const ListCase& list_case, PluginCoordinator& coordinator,
                const std::string& path, int notify_type, const Strings& in_force);

    Examination& examination_;
    TempDir dir_;
    LogCapture log_;
    ConfigMonitor monitor_;
};

template <class Work>
void World::Measure(const std::string& step, const ListCase& list_case, const std::string& path,
                    Work work) {
    log_.Clear();
    const GrowingFile growing(path, list_case.kind);
    const long before = ThreadProcessorMs();
    work();
    const long used = ThreadProcessorMs() - before;
    examination_.processor_ms = std::max(examination_.processor_ms, used);
    if (used > kMostProcessorMs)
        Problem(step, "took " + std::to_string(used) + " ms of processor time");
    if (!growing.HasHappened()) Problem(step, "the file was not read");
}

// Whole or nothing: the declared ones in their order, and of them and the good one each key once
// in the registry.
void World::ExpectRegistered(const std::string& step, PluginCoordinator& coordinator,
                             const Strings& declared, const std::set<std::string>& unregistered) {
    Strings listed;
    coordinator.GetAllFkeys(listed);
    listed.erase(std::remove(listed.begin(), listed.end(), "good"), listed.end());
    if (listed != declared)
        Problem(step, "declared are " + Joined(listed) + " instead of " + Joined(declared));
    std::set<std::string> expected(declared.begin(), declared.end());
    for (const std::string& fkey : unregistered) expected.erase(fkey);
    expected.insert("good");
    std::set<std::string> registered;
    for (const auto& [fkey, record] : PluginProviderAccess::Collection(coordinator.provider()))
        registered.insert(fkey);
    if (registered != expected)
        Problem(step, "registered are " + Joined(Strings(registered.begin(), registered.end())) +
                          " instead of " + Joined(Strings(expected.begin(), expected.end())));
}

void World::ExpectLog(const std::string& step, const ListCase& list_case, const std::string& path,
                      int notify_type) {
    Strings expected;
    for (const std::string& line : list_case.log) expected.push_back(WithPath(line, path));
    if (list_case.verdict == ListCase::Verdict::kAbsent && notify_type == ConfigMonitor::kAdded) {
        expected.clear();
    } else if (list_case.verdict != ListCase::Verdict::kAccepted) {
        expected.push_back("5 read plugin list failed, config file path " + path);
        expected.push_back("4 read plugin list config failed, ignored, file path " + path +
                           ", notify type " + std::to_string(notify_type));
    }
    const Strings lines = log_.Lines();
    bool same = lines.size() == expected.size();
    for (size_t i = 0; same && i < lines.size(); ++i)
        same = vessa_test::LineMatches(lines[i], expected[i]);
    if (!same) Problem(step, "the log has " + Joined(lines) + " instead of " + Joined(expected));
}

void World::ExpectGoodIsServed(const std::string& step, PluginCoordinator& coordinator) {
    void* instance = nullptr;
    void* iface = nullptr;
    int plugin_error = 0;
    PluginProvider& provider = coordinator.provider();
    const int created = provider.CreateInstance("good", instance, plugin_error);
    const int queried = provider.QueryInterface(instance, TEST_MODULE_IKEY, iface, plugin_error);
    if (created != 0 || queried != 0 || iface == nullptr)
        Problem(step, "the good list's plug-in is not served");
    else if (static_cast<test_interface*>(iface)->Add(2, 3) != 5)
        Problem(step, "the good list's plug-in does not work");
    if (created == 0) provider.DestroyInstance(instance, plugin_error);
}

void World::Expect(const std::string& step, const ListCase& list_case,
                   PluginCoordinator& coordinator, const std::string& path, int notify_type,
                   const Strings& in_force) {
    const bool accepted = list_case.verdict == ListCase::Verdict::kAccepted;
    ExpectLog(step, list_case, path, notify_type);
    ExpectRegistered(step, coordinator, accepted ? list_case.fkeys : in_force,
                     list_case.unregistered);
    ExpectGoodIsServed(step, coordinator);
}

void World::MeetNew(const ListCase& list_case, const std::function<void()>& planted) {
    const std::string path = dir_.MakeFolder("a") + "/" + kListName;
    Place(list_case, path);
    PluginCoordinator coordinator;
    Start(coordinator);
    Measure("new", list_case, path, [&] {
        if (planted) planted();
        coordinator.Run();
    });
    Expect("new", list_case, coordinator, path, ConfigMonitor::kAdded, {});
    coordinator.Shutdown();
    dir_.Remove("a");
}

void World::MeetAsAChange(const ListCase& list_case, const std::function<void()>& planted) {
    PluginCoordinator coordinator;
    Start(coordinator);
    coordinator.Run();
    const std::string path = dir_.Write(
        "a.xml",
        vessa_test::ListFile().Plugin("kept", "./kept.so", {{"delayload", "true"}}).Text());
    coordinator.ConfigFileChanged(monitor_, {{path, ConfigMonitor::kAdded}});
    Place(list_case, path);
    Measure("change", list_case, path, [&] {
        if (planted) planted();
        coordinator.ConfigFileChanged(monitor_, {{path, ConfigMonitor::kChanged}});
    });
    Expect("change", list_case, coordinator, path, ConfigMonitor::kChanged, {"kept"});
    coordinator.Shutdown();
    dir_.Remove("a.xml");
}

// One library for all cuts: they are too many for one each.
void World::MeetCuts(const ListCase& list_case) {
    PluginCoordinator coordinator;
    Start(coordinator);
    coordinator.Run();
    const std::string path = dir_.Path("a.xml");
    ListCase cut = list_case;
    for (size_t length = 0; length <= list_case.content.size(); ++length) {
        const std::string step = "cut to " + std::to_string(length);
        const std::string& reason = std::prev(list_case.cuts.upper_bound(length))->second;
        const bool accepted = reason == "accepted";
        cut.content = list_case.content.substr(0, length);
        cut.verdict = accepted ? ListCase::Verdict::kAccepted : ListCase::Verdict::kRefused;
        cut.log = accepted ? Strings() : Strings{reason};
        Place(cut, path);
        Measure(step, cut, path, [&] {
            coordinator.ConfigFileChanged(monitor_, {{path, ConfigMonitor::kAdded}});
        });
        Expect(step, cut, coordinator, path, ConfigMonitor::kAdded, {});
        if (accepted) coordinator.ConfigFileChanged(monitor_, {{path, ConfigMonitor::kDeleted}});
    }
    coordinator.Shutdown();
}

// Runs the work on a thread with the small stack.
void OnSmallStack(const std::function<void()>& work) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackBytes);
    pthread_t thread{};
    const auto entry = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    const int failure =
        pthread_create(&thread, &attributes, entry, const_cast<std::function<void()>*>(&work));
    pthread_attr_destroy(&attributes);
    if (failure != 0) throw std::runtime_error("no thread");
    pthread_join(thread, nullptr);
}

// One arena for all threads: a further one would reserve as much as is allowed, and use little.
void LimitAddressSpace() {
    if (kHasSanitizer) return;
    mallopt(M_ARENA_MAX, 1);
    const auto limit = static_cast<rlim_t>(StatusValue("VmSize") + kMostKiB) * 1024;
    const rlimit limits{limit, limit};
    setrlimit(RLIMIT_AS, &limits);
}

void RunInChild(const std::function<void(Examination&)>& work, int answer) {
    Examination examination;
    try {
        LimitAddressSpace();
        const long before = StatusValue("VmRSS");
        OnSmallStack([&] {
            try {
                work(examination);
            } catch (const std::exception& error) {
                examination.problems.push_back(std::string("thrown: ") + error.what());
            }
        });
        if (!kHasSanitizer) examination.grown_kib = StatusValue("VmHWM") - before;
        if (examination.grown_kib > kMostKiB)
            examination.problems.push_back("grew by " + std::to_string(examination.grown_kib) +
                                           " KiB");
    } catch (const std::exception& error) {
        examination.problems.push_back(std::string("thrown: ") + error.what());
    }
    std::ostringstream text;
    text << examination.processor_ms << ' ' << examination.grown_kib << '\n';
    for (std::string& problem : examination.problems) {
        std::replace(problem.begin(), problem.end(), '\n', ' ');
        text << problem << '\n';
    }
    const std::string lines = text.str() + "end\n";
    for (size_t done = 0; done < lines.size();) {
        const ssize_t written = write(answer, lines.data() + done, lines.size() - done);
        if (written <= 0) break;
        done += static_cast<size_t>(written);
    }
}

std::string ReadAnswer(int answer) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t bytes = read(answer, buffer, sizeof buffer);
        if (bytes <= 0) return text;
        text.append(buffer, static_cast<size_t>(bytes));
    }
}

// What the child makes goes with this folder also when it does not come to its end.
Examination InChild(const std::function<void(Examination&)>& work) {
    const TempDir folder;
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no child");
    if (child == 0) {
        close(ends[0]);
        setenv("TMPDIR", folder.Path().c_str(), 1);
        alarm(kWatchdogSeconds);
        RunInChild(work, ends[1]);
        _exit(0);
    }
    close(ends[1]);
    std::istringstream lines(ReadAnswer(ends[0]));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    Examination examination;
    lines >> examination.processor_ms >> examination.grown_kib;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line) && line != "end") examination.problems.push_back(line);
    if (status != 0 || line != "end")
        examination.problems.push_back("the child ended with status " + std::to_string(status));
    return examination;
}

}  // namespace

Examination Examine(const ListCase& list_case, const std::function<void()>& planted) {
    return InChild([&](Examination& examination) {
        World world(examination);
        world.MeetNew(list_case, planted);
        world.MeetAsAChange(list_case, planted);
    });
}

Examination ExamineTruncations(const ListCase& list_case) {
    return InChild([&](Examination& examination) {
        World world(examination);
        world.MeetCuts(list_case);
    });
}

}  // namespace vessa_lists
