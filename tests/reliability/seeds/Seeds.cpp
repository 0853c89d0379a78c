// Seeded schedules over the whole library.
//
//   vessa_seeds run <seed>             one seed
//   vessa_seeds range <first> <count>  many, one after the other; the first that fails ends it
//   --library <file>                   another library than the built one with sync points
//   --twice                            each seed twice: the schedules must be the same
//   --log                              with everything that the library logs
//
// A seed has eight rounds, each with a schedule of its own. A round: the library is loaded; four
// threads make random creates, destroys, queries, questions for keys and attributes, starts and
// stops, and hand instances to each other; one switches list files; the scanning thread scans after
// a seeded number of steps. Every result must be one of those that are allowed (Application.cpp),
// and what the modules see must be in order (Ledger.h). At the end a scan must bring the registry
// to what the lists say, and after the stop nothing may be left: no module and no library mapped,
// no mutex, semaphore, thread or folder, no live instance.
//
// The runs are in a child process. Its end by a signal, by a sanitizer's report, by a failed check,
// or by the watchdog is the seed's failure, which names it. Schedule.h says what a seed decides.
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "reliability/seeds/Application.h"
#include "reliability/seeds/Ledger.h"
#include "skrib/skrib.h"
#include "support/Child.h"
#include "tova.h"

namespace seeds {
namespace {

using schedule::Fail;

constexpr int kRounds = 8;
constexpr int kApplications = 4;
constexpr auto kWatchdog = std::chrono::seconds(60);

struct Options {
    std::string library;
    uint64_t first = 0;
    uint64_t count = 0;
    bool twice = false;
    bool log = false;
};

template <class Function>
void Find(void* library, const char* name, Function*& function) {
    function = reinterpret_cast<Function*>(dlsym(library, name));
    if (function == nullptr) Fail("the library has no %s", name);
}

void* Load(const std::string& path, Exports& exports) {
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) Fail("%s", dlerror());
    Find(library, "VESSA_Init", exports.Init);
    Find(library, "VESSA_Uninit", exports.Uninit);
    Find(library, "VESSA_CreateInstance", exports.Create);
    Find(library, "VESSA_DestroyInstance", exports.Destroy);
    Find(library, "VESSA_QueryInterface", exports.Query);
    Find(library, "VESSA_QueryConfigAttribute", exports.QueryAttribute);
    Find(library, "VESSA_QueryAllFkeys", exports.QueryKeys);
    Find(library, "VESSA_ReleaseAllFkeys", exports.ReleaseKeys);
    return library;
}

bool IsMapped(const std::string& path) {
    void* const found = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (found != nullptr) dlclose(found);
    return found != nullptr;
}

void RunThreads(uint64_t seed, schedule::Random& random) {
    std::vector<std::unique_ptr<Application>> applications;
    const int steps = 10 << random.Below(3);
    for (uint64_t i = 0; i < kApplications; ++i)
        applications.push_back(std::make_unique<Application>(seed * 8 + i, steps));
    // One switch is made before the threads start.
    const int switches = 8 + static_cast<int>(random.Below(kSwitches - 8));
    Mover mover{schedule::Random(seed * 8 + kApplications), switches, 8u << random.Below(6)};
    std::vector<tova_thread_t> threads;
    for (const auto& application : applications)
        threads.push_back(TOVA_Thread_Create(&Application::Run, application.get(), 0, 0, 0, 0));
    threads.push_back(TOVA_Thread_Create(&Mover::Run, &mover, 0, 0, 0, 0));
    for (const tova_thread_t thread : threads) TOVA_Thread_Wait(thread);
    for (Slot& slot : shared->slots) {
        if (void* const instance = slot.instance.exchange(nullptr)) Application::Destroy(instance);
    }
}

// With nothing else at work two scans bring the registry to what the lists say.
void CheckRegistry() {
    shared->modules_behave = true;
    for (int i = 0; i < 2; ++i) {
        if (!schedule::Tick()) Fail("nobody scans");
    }
    for (int i = 0; i < kKeys; ++i) {
        void* instance = nullptr;
        const int result = shared->library.Create(kKeyNames[i], &instance, nullptr);
        const bool is_declared = shared->world->IsDeclared(static_cast<Key>(i));
        if (result != (is_declared ? VESSA_OK : VESSA_ERR_NOT_REGISTERED))
            Fail("at the end a create of %s, which is %sdeclared, gives %d", kKeyNames[i],
                 is_declared ? "" : "not ", result);
        if (instance == nullptr) continue;
        Application::Query(instance);
        Application::Destroy(instance);
    }
}

void CheckNothingIsLeft(const World& world, void* library) {
    ledger::CheckNothingIsLeft();
    for (int i = 0; i < kModules; ++i) {
        if (IsMapped(world.ModulePath(static_cast<Module>(i))))
            Fail("%s is left mapped", kModuleNames[i]);
    }
    dlclose(library);
    if (IsMapped(world.Library())) Fail("the library is left mapped");
    const schedule::Census left = schedule::Count();
    if (left.mutexes != 0 || left.semaphores != 0 || left.threads != 0 || left.modules != 0 ||
        left.folders != 0)
        Fail("left: %ld mutexes, %ld semaphores, %ld threads, %ld modules, %ld folders",
             left.mutexes, left.semaphores, left.threads, left.modules, left.folders);
}

schedule::Summary RunRound(World& world, uint64_t seed, int round) {
    schedule::Begin(seed, round);
    ledger::Reset();
    world.Reset();
    const uint64_t round_seed = seed * kRounds + static_cast<uint64_t>(round);
    schedule::Random random(round_seed);
    Shared mine;
    shared = &mine;
    mine.world = &world;
    void* const library = Load(world.Library(), mine.library);
    mine.library_runs = random.OneIn(3);
    mine.is_restless = random.OneIn(2);
    mine.wanted = static_cast<Key>(random.Below(kKeys));
    for (const Folder folder : {kOne, kTwo}) world.Switch(folder, kVariants[folder] - 1);
    if (mine.library_runs && mine.library.Init() != VESSA_OK) Fail("the first Init fails");
    RunThreads(round_seed, random);
    if (!mine.library_runs && mine.library.Init() != VESSA_OK) Fail("the last Init fails");
    mine.library_runs = true;
    CheckRegistry();
    mine.library.Uninit();
    CheckNothingIsLeft(world, library);
    shared = nullptr;
    return schedule::End();
}

schedule::Summary RunSeed(World& world, uint64_t seed) {
    schedule::Summary all{};
    for (int round = 0; round < kRounds; ++round) {
        const schedule::Summary one = RunRound(world, seed, round);
        all.hash = (all.hash ^ one.hash) * 0x100000001B3u;
        all.steps += one.steps;
        all.switches += one.switches;
        all.scans += one.scans;
        if (one.threads > all.threads) all.threads = one.threads;
    }
    return all;
}

void PrintFigures(const Options& options, const schedule::Summary& all, int most_threads) {
    const ledger::Totals totals = ledger::Count();
    std::printf(
        "seeds: %llu seeds: %llu steps, %llu switches, %llu scans, up to %d threads; "
        "modules: %lu inits, %lu creates, %lu unloads%s\n",
        static_cast<unsigned long long>(options.count), static_cast<unsigned long long>(all.steps),
        static_cast<unsigned long long>(all.switches), static_cast<unsigned long long>(all.scans),
        most_threads, totals.inits, totals.creates, totals.unloads,
        options.twice ? "; every schedule the same again" : "");
}

int RunAll(const Options& options, World& world) {
    SKRIB_SetThreshold(nullptr, options.log ? SKRIB_LEVEL_TRACE : SKRIB_LEVEL_OFF);
    schedule::Summary all{};
    int most_threads = 0;
    for (uint64_t seed = options.first; seed < options.first + options.count; ++seed) {
        const schedule::Summary once = RunSeed(world, seed);
        if (options.twice && RunSeed(world, seed).hash != once.hash) {
            std::fprintf(stderr, "seeds: seed %llu has two schedules\n",
                         static_cast<unsigned long long>(seed));
            return 4;
        }
        all.steps += once.steps;
        all.switches += once.switches;
        all.scans += once.scans;
        if (once.threads > most_threads) most_threads = once.threads;
        if (options.count == 1)
            std::printf("seeds: seed %llu: schedule %016llx\n",
                        static_cast<unsigned long long>(seed),
                        static_cast<unsigned long long>(once.hash));
    }
    PrintFigures(options, all, most_threads);
    return 0;
}

// Waits for the child as long as it makes steps. The status as of waitpid; -1: it was ended.
int Watch(pid_t child, const schedule::Shown& shown) {
    uint64_t steps = 0;
    auto last_step = std::chrono::steady_clock::now();
    for (;;) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) return status;
        const auto now = std::chrono::steady_clock::now();
        if (shown.steps + shown.round + shown.seed != steps) {
            steps = shown.steps + shown.round + shown.seed;
            last_step = now;
        } else if (now - last_step > kWatchdog) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

int Report(int status, const Options& options, const schedule::Shown& shown) {
    if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return 0;
    char how[64] = "ended by the watchdog: no step for 60 s";
    if (status != -1 && WIFSIGNALED(status))
        std::snprintf(how, sizeof how, "signal %d (%s)", WTERMSIG(status),
                      strsignal(WTERMSIG(status)));
    else if (status != -1)
        std::snprintf(how, sizeof how, "exit status %d", WEXITSTATUS(status));
    std::fprintf(
        stderr,
        "seeds: seed %llu failed in round %llu at step %llu: %s\n"
        "   replay: %s run %llu --library %s\n",
        static_cast<unsigned long long>(shown.seed), static_cast<unsigned long long>(shown.round),
        static_cast<unsigned long long>(shown.steps), how, vessa_test::OwnProgram().c_str(),
        static_cast<unsigned long long>(shown.seed), options.library.c_str());
    return 1;
}

std::string FolderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

bool Parse(int count, char** arguments, Options& options) {
    options.library = FolderOf(vessa_test::OwnProgram()) + "/../lib/points/libvessa.so.2";
    int at = 1;
    const std::string command = count > 2 ? arguments[at++] : "";
    if (command != "run" && command != "range") return false;
    options.first = std::strtoull(arguments[at++], nullptr, 10);
    options.count = 1;
    if (command == "range") {
        if (at >= count) return false;
        options.count = std::strtoull(arguments[at++], nullptr, 10);
    }
    for (; at < count; ++at) {
        const std::string option = arguments[at];
        if (option == "--twice")
            options.twice = true;
        else if (option == "--log")
            options.log = true;
        else if (option == "--library" && at + 1 < count)
            options.library = arguments[++at];
        else
            return false;
    }
    char* const whole = realpath(options.library.c_str(), nullptr);
    if (whole != nullptr) options.library = whole;
    std::free(whole);
    return whole != nullptr;
}

int Main(int count, char** arguments) {
    Options options;
    if (!Parse(count, arguments, options)) {
        std::fprintf(stderr,
                     "vessa_seeds run <seed> | range <first> <count> "
                     "[--library <file>] [--twice] [--log]\n");
        return 2;
    }
    void* const page = mmap(nullptr, sizeof(schedule::Shown), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return 2;
    auto* const shown = new (page) schedule::Shown{0, 0, 0};
    World world(options.library,
                FolderOf(vessa_test::OwnProgram()) + "/../lib/seeds/seeds_module.so");
    const pid_t child = fork();
    if (child < 0) return 2;
    if (child == 0) {
        schedule::ShowIn(shown);
        std::exit(RunAll(options, world));
    }
    return Report(Watch(child, *shown), options, *shown);
}

}  // namespace
}  // namespace seeds

// The thread sanitizer's, after each report that it has written: the seed ends with the first one.
extern "C" __attribute__((visibility("default"))) void __tsan_on_report(void*) {
    constexpr int kReported = 66;
    _exit(kReported);
}

int main(int count, char** arguments) {
    return seeds::Main(count, arguments);
}
