// The application of this family: sees nothing but the public headers, and tells on standard
// output what it was answered and what was left. Runs in a world (CapiWorld.h) in which "good" is
// declared and "m" is not yet: its list file stands beside its place.
//
//   vessa_hostile_host <lives> [<further key>...]
#include <dirent.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "modules/TestInterface.h"
#include "skrib.h"
#include "vessa/vessa.h"

namespace {

void Tell(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

std::string Name(int result) {
    switch (result) {
#define HOSTILE_RESULT(name, number, meaning) \
  case number:                                \
    return #name;
        VESSA_RESULT_LIST(HOSTILE_RESULT)
#undef HOSTILE_RESULT
        default:
            return "undocumented " + std::to_string(result);
    }
}

std::string Given(const void* pointer) {
    return pointer == nullptr ? " null" : " given";
}

// What the process holds of the system, and what the library holds of the lists.
struct Census {
    std::set<std::string> modules;  // mapped files below the plug-in root, by their last names
    long threads = 0;
    long descriptors = 0;
    unsigned int keys = 0;
};

long CountEntries(const char* folder) {
    long count = 0;
    DIR* const listing = opendir(folder);
    if (listing == nullptr) std::abort();
    while (readdir(listing) != nullptr) ++count;
    closedir(listing);
    return count;
}

std::set<std::string> MappedModules() {
    std::set<std::string> modules;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/tarnet/") != std::string::npos)
            modules.insert(line.substr(line.rfind('/') + 1));
    }
    return modules;
}

unsigned int DeclaredKeys() {
    char** fkeys = nullptr;
    unsigned int count = 0;
    if (VESSA_QueryAllFkeys(&fkeys, &count) == VESSA_OK) VESSA_ReleaseAllFkeys(fkeys, count);
    return count;
}

Census Take() {
    Census census;
    census.modules = MappedModules();
    census.threads = CountEntries("/proc/self/task");
    census.descriptors = CountEntries("/proc/self/fd");
    census.keys = DeclaredKeys();
    return census;
}

// A thread that was joined is still listed for a moment.
Census TakeSettled(const Census& before) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    Census census = Take();
    while (census.threads > before.threads && std::chrono::steady_clock::now() < end) {
        sched_yield();
        census = Take();
    }
    return census;
}

std::string Difference(const Census& before, const Census& after) {
    std::string text;
    for (const std::string& module : after.modules) {
        if (before.modules.count(module) == 0) text += " mapped " + module;
    }
    const auto more = [&](long by, const char* what) {
        if (by != 0) text += " " + std::to_string(by) + " " + what;
    };
    more(after.threads - before.threads, "threads");
    more(after.descriptors - before.descriptors, "descriptors");
    more(static_cast<long>(after.keys) - static_cast<long>(before.keys), "keys");
    return text.empty() ? " nothing" : text;
}

// The code with which the registration could not load "m"; from the log, the only place that has
// it.
std::mutex load_mutex;
std::string load_failure;

void Read(void*, const char*, int, const char* text, const char* file, const char*, int) {
    static const std::string kStart = "load plugin failed ";
    const std::string line = text;
    // The path of the source begins as the compiler was given it.
    const std::string source = file;
    if (source.find("vessa2/PluginProvider.cpp") == std::string::npos) return;
    if (line.rfind(kStart, 0) != 0) return;
    if (line.find(", fkey m,") == std::string::npos) return;
    const std::lock_guard<std::mutex> lock(load_mutex);
    load_failure = Name(std::atoi(line.c_str() + kStart.size()));
}

bool GoodServes() {
    void* instance = nullptr;
    void* found = nullptr;
    int error = 99;
    if (VESSA_CreateInstance("good", &instance, &error) != VESSA_OK || error != 0) return false;
    bool serves = VESSA_QueryInterface(instance, TEST_MODULE_IKEY, &found, &error) == VESSA_OK;
    if (serves) {
        const auto* const iface = static_cast<const test_interface*>(found);
        serves = iface->Add(2, 3) == 5 && iface->Fkey(instance) == std::string("good");
    }
    return VESSA_DestroyInstance(instance, &error) == VESSA_OK && serves;
}

void TellGood() {
    Tell(GoodServes() ? "good: served" : "good: NOT SERVED");
}

void UseModule() {
    void* instance = &load_mutex;
    int error = 99;
    int result = VESSA_CreateInstance("m", &instance, &error);
    Tell("create: " + Name(result) + " " + std::to_string(error) + Given(instance));
    if (result != VESSA_OK) return;

    void* found = &load_mutex;
    error = 99;
    result = VESSA_QueryInterface(instance, TEST_MODULE_IKEY, &found, &error);
    Tell("query: " + Name(result) + " " + std::to_string(error) + Given(found));

    void* second = nullptr;
    result = VESSA_CreateInstance("m", &second, nullptr);
    Tell("second: " + Name(result));
    if (result == VESSA_OK && second != nullptr) VESSA_DestroyInstance(second, nullptr);

    error = 99;
    result = VESSA_DestroyInstance(instance, &error);
    Tell("destroy: " + Name(result) + " " + std::to_string(error));
    Tell("twice: " + Name(VESSA_DestroyInstance(instance, nullptr)));
}

void TryKey(const std::string& key) {
    void* instance = nullptr;
    const int result = VESSA_CreateInstance(key.c_str(), &instance, nullptr);
    Tell("key " + key.substr(0, 8) + ": " + Name(result));
    if (instance != nullptr) VESSA_DestroyInstance(instance, nullptr);
}

// One life of the library with everything that is declared.
void Live(const Census& before, const std::vector<std::string>& keys) {
    load_failure.clear();
    Tell("start: " + Name(VESSA_Init()));
    Tell("load: " + (load_failure.empty() ? "VESSA_OK" : load_failure));
    TellGood();
    UseModule();
    for (const std::string& key : keys) TryKey(key);
    const std::set<std::string> mapped = MappedModules();
    Tell(std::string("mapped: ") + (mapped.count("m.so") != 0 ? "yes" : "no"));
    TellGood();
    VESSA_Uninit();
    Tell("left:" + Difference(before, TakeSettled(before)));
    for (const std::string& key : keys) {
        void* instance = nullptr;
        if (VESSA_CreateInstance(key.c_str(), &instance, nullptr) != VESSA_ERR_NOT_REGISTERED &&
            !key.empty())
            Tell("key " + key + " is still registered");
    }
}

}  // namespace

int main(int count, char** values) {
    const std::vector<std::string> keys(values + 2, values + count);
    SKRIB_SetSink(&Read, nullptr);
    SKRIB_SetThreshold("vessa", SKRIB_LEVEL_ERROR);
    // What a life takes from the system once for all is taken here.
    Tell("start: " + Name(VESSA_Init()));
    TellGood();
    VESSA_Uninit();
    const Census before = Take();
    if (std::rename("tarnet/m/undeclared.xml", "tarnet/m/tarnet.xml") != 0) return 3;
    for (int life = std::atoi(values[1]); life > 0; --life) Live(before, keys);
    Tell("end");
    return 0;
}
