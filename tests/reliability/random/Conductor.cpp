#include "Conductor.h"

#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "Counters.h"
#include "Life.h"
#include "Random.h"
#include "TestPlatform.h"

namespace vessa_random {
namespace {

constexpr long kPhasesBetweenStops = 4;
// On a busy machine a minute may be too short for all that is rare; and what comes a few times in
// so many phases on the average may not come in just these.
constexpr long kPhasesToBeComplete = 24;
constexpr long kMostPhasesToBeComplete = 240;

bool IsEnoughToBeComplete(long phase) {
    return phase >= kMostPhasesToBeComplete || (phase >= kPhasesToBeComplete && IsComplete());
}

// Several threads at once, each with its number; ends when all have ended.
void RunThreads(int threads, const std::function<void(int)>& run) {
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&run, i] {
            try {
                run(i);
            } catch (const std::exception& error) {
                Mismatch("the run itself", "no exception", error.what());
            }
        });
    }
    for (std::thread& thread : running) thread.join();
}

void Same(const std::string& about, long expected, long seen) {
    if (expected != seen) Mismatch(about, std::to_string(expected), std::to_string(seen));
}

}  // namespace

Conductor::Conductor(Host& host) : host_(host), shared_(host) {
    Files& files = host.files();
    const std::string path = files.Path("stable/stable" MODULE_SUFFIX);
    files.PutModule(path, Files::MakeModule(kStableOwner, ModuleKind::kGood));
    const std::string list = files.Path("stable/tarnet.xml");
    files.PutList(list, {Item{kStableKey, path, list, kStableNote, false, false}});
    for (int i = 0; i < TheOptions().threads; ++i)
        workers_.push_back(std::make_unique<Worker>(host, shared_, i));
}

long Conductor::operations() const {
    return phases_ * TheOptions().threads * TheOptions().operations;
}

void Conductor::Run() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(TheOptions().seconds);
    Start();
    for (long phase = 0;; ++phase) {
        SetPhase(phase);
        ThisPosition() = Position{-1, phase};
        const bool over = std::chrono::steady_clock::now() >= end;
        const bool enough = TheOptions().phases > 0
                                ? phase == TheOptions().phases
                                : over && (!TheOptions().complete || IsEnoughToBeComplete(phase));
        if (enough) break;
        RunPhase(phase);
        if (phase % kPhasesBetweenStops != kPhasesBetweenStops - 1) continue;
        Stop();
        RunLife(phase);
        Start();
    }
    Stop();
}

void Conductor::Start() {
    const int result = host_.library().Init();
    if (result != VESSA_OK) Mismatch("the first start", "VESSA_OK", ResultName(result));
    for (const auto& worker : workers_) worker->model().Restart();
    host_.SetStable(true);
}

void Conductor::RunPhase(long phase) {
    host_.SetFaults(phase % 2 == 1);
    RunThreads(TheOptions().threads,
               [&](int i) { workers_[static_cast<size_t>(i)]->RunPhase(phase); });
    host_.SetFaults(false);
    ++phases_;
    Compare(phase, true);
}

// Everything, with all threads standing still.
void Conductor::Compare(long phase, bool is_running) {
    for (const auto& worker : workers_) {
        worker->SettleDuels();
        worker->CompareDeclared(is_running);
    }
    CompareAllKeys();
    CompareModules(is_running);
    CompareShared();
    if (phase % 3 == 2) {
        for (const auto& worker : workers_) worker->CompareKeys();
        CompareModules(is_running);
    }
    if (phase % 3 == 1) {
        for (const auto& worker : workers_) worker->DestroyAll(false);
        CompareModules(is_running);
        CompareShared();
    }
    for (const auto& worker : workers_) worker->ForgetDead();
    Modules::FreeDead();
}

// In the byte order of the list files' paths: s, stable, t0 to t7.
void Conductor::CompareAllKeys() {
    std::vector<std::string> expected = shared_.AllKeys();
    expected.push_back(kStableKey);
    for (const auto& worker : workers_) {
        const std::vector<std::string> own = worker->model().AllKeys();
        expected.insert(expected.end(), own.begin(), own.end());
    }
    char** keys = nullptr;
    unsigned int count = 0;
    const int result = host_.library().QueryAllFkeys(&keys, &count);
    if (result != VESSA_OK) Mismatch("all keys", "VESSA_OK", ResultName(result));
    std::vector<std::string> seen;
    for (unsigned int i = 0; i < count; ++i) seen.emplace_back(keys[i]);
    host_.library().ReleaseAllFkeys(keys, count);
    if (seen == expected) return;
    const auto text = [](const std::vector<std::string>& all) {
        std::string joined;
        for (const std::string& key : all) joined += key + " ";
        return joined;
    };
    Mismatch("all keys", text(expected), text(seen));
}

// Which modules are loaded, and how many instances each counts.
void Conductor::CompareModules(bool is_running) {
    std::map<uint64_t, long> expected;
    std::map<uint64_t, std::string> paths;
    for (const auto& worker : workers_) {
        for (const auto& [path, serial] : worker->model().LoadedModules()) {
            expected[serial] = 0;
            paths[serial] = path;
        }
    }
    std::map<uint64_t, long> held;
    for (const auto& worker : workers_) {
        for (const Worker::Held& each : worker->held()) ++held[each.serial];
    }
    const std::vector<LoadedModule> loaded = Modules::Loaded();
    for (const LoadedModule& module : loaded) {
        const std::string name = "module " + std::to_string(module.serial) + " of " +
                                 std::to_string(Files::OwnerOf(module.serial));
        const bool own = Files::OwnerOf(module.serial) < TheOptions().threads;
        if (own && expected.erase(module.serial) == 0)
            Mismatch(name, "it is not loaded", "it is loaded");
        Same("instances of " + name, held[module.serial], module.live);
        held.erase(module.serial);
    }
    for (const auto& missing : expected)
        Mismatch("module " + std::to_string(missing.first) + " at " + paths[missing.first],
                 "it is loaded", "it is not loaded");
    for (const auto& [serial, count] : held) {
        if (count > 0)
            Mismatch("module " + std::to_string(serial), std::to_string(count) + " instances",
                     "it is not loaded");
    }
    const vessa_test::RuntimeCensus census = vessa_test::Runtime::Census();
    Same("modules by the runtime", static_cast<long>(loaded.size()), census.modules);
    Same("threads", is_running ? 1 : 0, census.threads);
    Same("open folders", 0, census.folders);
    CompareMappings(loaded.size());
}

// Files below the root that are mapped, each once.
void Conductor::CompareMappings(size_t modules) {
    std::ifstream maps("/proc/self/maps");
    std::set<std::string> files;
    std::string line;
    while (std::getline(maps, line)) {
        const size_t path = line.find(host_.files().Root() + "/");
        if (path == std::string::npos) continue;
        // "address rights offset device inode path"
        const size_t inode = line.find(' ', line.find(':')) + 1;
        files.insert(line.substr(inode, line.find(' ', inode) - inode) + line.substr(path));
    }
    Same("mapped modules", static_cast<long>(modules), static_cast<long>(files.size()));
}

void Conductor::CompareShared() {
    std::map<int, long> held;
    std::map<int, long> loaded;
    for (const auto& worker : workers_) {
        for (const Worker::Held& each : worker->held()) {
            if (each.shared >= 0) ++held[each.shared];
        }
    }
    for (const LoadedModule& module : Modules::Loaded())
        ++loaded[Files::OwnerOf(module.serial) - Shared::kFirstOwner];
    for (int key = 0; key < Shared::kKeys; ++key) {
        const std::string about = "loaded modules of " + shared_.Name(key);
        if (held[key] > 0) Same(about, 1, loaded[key]);
        if (held[key] == 0 && (!shared_.IsRegistered(key) || !host_.stable()))
            Same(about, 0, loaded[key]);
        if (loaded[key] > 1) Mismatch(about, "at most one", std::to_string(loaded[key]));
    }
}

// Stops the library with some instances alive; then those go too.
void Conductor::Stop() {
    host_.SetStable(false);
    for (const auto& worker : workers_) {
        worker->GiveBackUsers();
        worker->DestroyAll(true);
    }
    host_.library().Uninit();
    Count(kFullStop);
    for (const auto& worker : workers_) worker->model().Stop();
    CompareModules(false);
    CompareShared();
    for (const auto& worker : workers_) worker->DestroyAll(false);
    CompareStopped();
    for (const auto& worker : workers_) worker->ForgetDead();
    Modules::FreeDead();
}

// Nothing is left but what the modules themselves have made impossible to take back: a key with an
// instance that nobody can destroy, with the two mutexes of its record and its module; and a
// module's name that is taken for good.
void Conductor::CompareStopped() {
    CompareModules(false);
    CompareShared();
    char** keys = nullptr;
    unsigned int count = 1;
    host_.library().QueryAllFkeys(&keys, &count);
    host_.library().ReleaseAllFkeys(keys, count);
    Same("declared keys after a stop", 0, static_cast<long>(count));
    void* instance = nullptr;
    Same("create after a stop", VESSA_ERR_NOT_REGISTERED,
         host_.library().CreateInstance(kStableKey, &instance, nullptr));
    long left = 0;
    for (const auto& worker : workers_) {
        std::set<std::string> names;
        for (const auto& [path, serial] : worker->model().LoadedModules())
            names.insert(FileName(path));
        left += static_cast<long>(worker->model().records().size()) * 2 +
                static_cast<long>(worker->model().CountNames(names));
    }
    vessa_test::RuntimeCensus census = vessa_test::Runtime::Census();
    census.mutexes -= left;
    if (!has_baseline_) baseline_ = census;
    has_baseline_ = true;
    Same("mutexes after a stop", baseline_.mutexes, census.mutexes);
    Same("semaphores after a stop", baseline_.semaphores, census.semaphores);
}

void Conductor::RunLife(long phase) {
    host_.RenewRuntime();
    for (const bool may_fail : {false, true}) {
        host_.SetThreadFaults(may_fail ? 4 : 0);
        RunThreads(TheOptions().threads,
                   [&](int i) { LifeThread(host_, i, may_fail).Run(2 * phase + may_fail); });
    }
    host_.SetThreadFaults(0);
    // A start that failed last leaves what it registered to the next start and stop.
    const int result = host_.library().Init();
    if (result != VESSA_OK) Mismatch("a start after all others", "VESSA_OK", ResultName(result));
    host_.library().Uninit();
    // Each start has loaded and unloaded what is not delay-loaded.
    for (const auto& worker : workers_) {
        worker->model().Restart();
        worker->model().Stop();
    }
    CompareStopped();
    Modules::FreeDead();
}

}  // namespace vessa_random
