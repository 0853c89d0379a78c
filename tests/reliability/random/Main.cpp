// The random run's program; Random.h says what it does.
//
//   vessa_random [--seed S] [--threads T] [--seconds N | --phases P] [--operations O] [--complete]
//                [--vessa FILE] [--plant rule | module]
//
// --vessa runs another build of the library. --plant rule has the model believe that a list file
// which cannot be read counts as removed; --plant module has some modules not count their
// instances. A run that does not find these does not look.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "Conductor.h"
#include "Counters.h"
#include "Random.h"
#include "skrib.h"

namespace vessa_random {
namespace {

std::atomic<long> the_phase{0};
std::string the_folder;

constexpr int kMostSecondsInAPhase = 600;

bool ReadOptions(int argc, char** argv, Options& options, std::string& vessa) {
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--complete") {
            options.complete = true;
            continue;
        }
        if (i + 1 == argc) return false;
        const char* const value = argv[++i];
        const long long number = std::strtoll(value, nullptr, 10);
        if (name == "--seed")
            options.seed = static_cast<uint64_t>(number);
        else if (name == "--threads")
            options.threads = static_cast<int>(number);
        else if (name == "--seconds")
            options.seconds = number;
        else if (name == "--phases")
            options.phases = number;
        else if (name == "--operations")
            options.operations = static_cast<int>(number);
        else if (name == "--vessa")
            vessa = std::filesystem::absolute(value).string();
        else if (name == "--plant")
            options.plant = value;
        else
            return false;
    }
    // With more threads the order of their folders is not that of their numbers.
    return options.threads >= 1 && options.threads <= 9 && options.operations >= 1;
}

// Ends the program if the phases do not go on.
void WatchPhases(const std::atomic<bool>& done) {
    long seen = -1;
    int same = 0;
    while (!done.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        same = the_phase.load() == seen ? same + 1 : 0;
        seen = the_phase.load();
        if (same > kMostSecondsInAPhase * 5)
            Mismatch("the run", "phase " + std::to_string(seen) + " ends",
                     "it has not ended for " + std::to_string(kMostSecondsInAPhase) + " s");
    }
}

int Run(const std::string& vessa) {
    const Options& options = TheOptions();
    SKRIB_SetThreshold(nullptr, SKRIB_LEVEL_OFF);
    ThisPosition().thread = -1;
    vessa_test::LoadedLibrary library(vessa);
    the_folder = library.folder().Path();
    Files files(library);
    Host host(files);
    Conductor conductor(host);
    std::atomic<bool> done{false};
    std::thread watch([&] { WatchPhases(done); });
    const auto begin = std::chrono::steady_clock::now();
    conductor.Run();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    // It still has what the modules made impossible to give back.
    library.Keep();
    done = true;
    watch.join();
    PrintCounts();
    std::printf("%12.0f  operations a second\n",
                static_cast<double>(conductor.operations()) / seconds.count());
    std::printf(
        "random: seed %llu, %.0f s, %d threads, %ld operations, %ld rounds, %ld faults: "
        "0 mismatches\n",
        static_cast<unsigned long long>(options.seed), seconds.count(), options.threads,
        conductor.operations(), CountOf(kRound), Faults());
    if (IsComplete() || !options.complete) return 0;
    std::printf("random: a kind never occurred\n");
    return 1;
}

}  // namespace

Options& TheOptions() {
    static Options options;
    return options;
}

Position& ThisPosition() {
    // A thread that nobody started here is the library's own.
    static thread_local Position position{-2, 0};
    return position;
}

void SetPhase(long phase) {
    the_phase = phase;
}

std::string ResultName(int result) {
#define VESSA_RANDOM_RESULT(name, number, meaning) \
  if (result == name) return #name;
    VESSA_RESULT_LIST(VESSA_RANDOM_RESULT)
#undef VESSA_RANDOM_RESULT
    return std::to_string(result);
}

void Mismatch(const std::string& about, const std::string& expected, const std::string& seen) {
    static std::atomic<bool> said{false};
    // Others may find what follows from it.
    if (said.exchange(true)) {
        for (;;) pause();
    }
    const Options& options = TheOptions();
    const Position position = ThisPosition();
    const std::string who = position.thread >= 0    ? "thread " + std::to_string(position.thread)
                            : position.thread == -1 ? std::string("between phases")
                                                    : std::string("the library's own thread");
    std::printf("MISMATCH: seed %llu, phase %ld, %s, operation %lld: %s\n",
                static_cast<unsigned long long>(options.seed), the_phase.load(), who.c_str(),
                static_cast<long long>(position.operation), about.c_str());
    std::printf("  expected: %s\n  seen:     %s\n", expected.c_str(), seen.c_str());
    std::printf("  again:    vessa_random --seed %llu --threads %d --operations %d --phases %ld\n",
                static_cast<unsigned long long>(options.seed), options.threads, options.operations,
                the_phase.load() + 1);
    std::fflush(stdout);
    std::error_code ignored;
    std::filesystem::remove_all(the_folder, ignored);
    std::_Exit(1);
}

}  // namespace vessa_random

int main(int argc, char** argv) {
    std::string vessa = RANDOM_VESSA_FILE;
    if (!vessa_random::ReadOptions(argc, argv, vessa_random::TheOptions(), vessa)) {
        std::fprintf(stderr, "%s: its options are in Main.cpp\n", argv[0]);
        return 2;
    }
    try {
        return vessa_random::Run(vessa);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 2;
    }
}
