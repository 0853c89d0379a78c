// The main program of every contestant.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "common/Rows.h"

namespace {

// With one thread alone in a process the C library leaves out locks and atomic operations, which
// no application with a plug-in host can count on. The thread never wakes, so what it waits on
// must never be destroyed.
void StartSleepingThread() {
    struct Bed {
        std::mutex mutex;
        std::condition_variable never;
    };
    static Bed& bed = *new Bed;
    std::thread([] {
        std::unique_lock<std::mutex> lock(bed.mutex);
        bed.never.wait(lock, [] { return false; });
    }).detach();
}

std::vector<std::function<void()>>& Endings() {
    static std::vector<std::function<void()>> endings;
    return endings;
}

}  // namespace

void bench::AtEnd(std::function<void()> function) {
    Endings().push_back(std::move(function));
}

int main(int argc, char** argv) {
    StartSleepingThread();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    bench::RegisterRows();
    benchmark::RunSpecifiedBenchmarks();
    for (const auto& ending : Endings()) ending();
    benchmark::Shutdown();
}
