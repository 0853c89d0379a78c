// What the guard counts: each path is repeated between two calls that switch callgrind's counting
// on and off, and its counts go into a file that bears its name and the number of repetitions.
//
// Not under callgrind it does the same and counts nothing.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Folder.h"
#include "common/Keys.h"
#include "common/Lists.h"
#include "ours/Library.h"

namespace bench {
namespace {

// Paths are copied and compared on the counted ways: their length must be the same everywhere.
constexpr const char* kWorldParent = "/tmp";
constexpr size_t kRepetitions = 2000;
constexpr size_t kFolders = 1000;

template <class Function>
void Count(const std::string& path, size_t repetitions, Function repeated) {
    CALLGRIND_START_INSTRUMENTATION;
    for (size_t i = 0; i < repetitions; ++i) repeated(i);
    CALLGRIND_STOP_INSTRUMENTATION;
    const std::string name = path + " " + std::to_string(repetitions);
    CALLGRIND_DUMP_STATS_AT(name.c_str());
    std::printf("ran %s\n", name.c_str());
}

void Require(bool is_so, const char* what) {
    if (!is_so) throw std::runtime_error(what);
}

class Paths {
  public:
    explicit Paths(size_t keys) : keys_(Keys(keys)), order_(keys), library_(kWorldParent) {
        Scans::Attach(library_);
        library_.DeclareOnOneModule(keys);
    }

    // Once uncounted: what is done with the first instance alone does not count.
    void Run() {
        const StartedLibrary started(library_);
        const std::string of_keys = "_" + std::to_string(keys_.size());
        instances_.resize(kRepetitions);
        for (size_t i = 0; i < kRepetitions; ++i) Create(i);
        for (size_t i = 0; i < kRepetitions; ++i) Destroy(i);
        Count("create" + of_keys, kRepetitions, [&](size_t i) { Create(i); });
        Count("query" + of_keys, kRepetitions, [&](size_t i) { Query(i); });
        Count("destroy" + of_keys, kRepetitions, [&](size_t i) { Destroy(i); });
    }

  private:
    void Create(size_t i) {
        const char* const key = keys_[order_.at(i)].c_str();
        const int result = library_.CreateInstance(key, &instances_[i], nullptr);
        Require(result == VESSA_OK, "no instance");
    }
    void Query(size_t i) {
        void* iface = nullptr;
        library_.QueryInterface(instances_[i], "bench.iface.decode", &iface, nullptr);
        Require(iface != nullptr, "no interface");
    }
    void Destroy(size_t i) {
        Require(library_.DestroyInstance(instances_[i], nullptr) == VESSA_OK, "not destroyed");
    }

    std::vector<std::string> keys_;
    RandomSequence order_;
    Library library_;
    std::vector<void*> instances_;
};

void RunRescans() {
    Library library(kWorldParent);
    const std::string root = library.MakeRoot();
    Scans::Attach(library);
    WriteFolders(root, Shape::kEach, kFolders);
    Scans::Hold();
    Require(library.Init() == VESSA_OK, "not started");
    Scans::RunOne();
    Count("rescan_" + std::to_string(kFolders), 3, [](size_t) { Scans::RunOne(); });
    Scans::Release();
    library.Uninit();
}

}  // namespace
}  // namespace bench

int main() {
    try {
        bench::Paths(1).Run();
        bench::Paths(10000).Run();
        bench::RunRescans();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
