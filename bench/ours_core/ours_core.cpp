// What the library's public functions do not let a program drive: registrations without a pause,
// and single log records. The program contains the library's objects, built as released.
#include <atomic>
#include <filesystem>
#include <thread>

#include "common/CreateRows.h"
#include "common/Folder.h"
#include "common/Lists.h"
#include "common/LogRow.h"
#include "common/MessageFormat.h"
#include "skrib.h"
#include "vessa/vessa.h"
#include "vessa2/LifeCycle.h"
#include "vessa2/ModuleDirectory.h"

namespace {

std::string& OwnFolder() {
    static std::string& folder = *new std::string;
    return folder;
}

}  // namespace

// In place of the library's own: its objects are in the program, whose folder is the wrong one.
std::string GetModuleDirectory() {
    return OwnFolder();
}

namespace bench {
namespace {

class CreateHost {
  public:
    explicit CreateHost(size_t keys) : keys_(Keys(keys)) {
        SKRIB_SetThreshold(nullptr, SKRIB_LEVEL_OFF);
        folder_.Copy(BENCH_MODULE_FILE, "tarnet/bench_module.so");
        WriteListsFor(folder_.Path() + "/tarnet", keys, "../bench_module.so");
        OwnFolder() = folder_.Path();
        if (VESSA_Init() != VESSA_OK) throw std::runtime_error("the library does not start");
    }
    ~CreateHost() { VESSA_Uninit(); }
    CreateHost(const CreateHost&) = delete;
    CreateHost& operator=(const CreateHost&) = delete;

    void* Create(size_t key) {
        void* instance = nullptr;
        VESSA_CreateInstance(keys_[key].c_str(), &instance, nullptr);
        return instance;
    }
    void Destroy(size_t, void* instance) { VESSA_DestroyInstance(instance, nullptr); }

    // One more plug-in comes and goes.
    void Write() {
        PluginProvider& provider = LifeCycle::Get()->provider();
        const std::string module = folder_.Path() + "/tarnet/bench_module.so";
        const std::string key = "bench.writer";
        if (provider.RegisterPlugin(key, module, true) != VESSA_OK ||
            provider.UnregisterPlugin(key) != VESSA_OK)
            throw std::runtime_error("the writer is refused");
    }

  private:
    TempFolder folder_;
    std::vector<std::string> keys_;
};

using Rows = CreateRows<CreateHost>;

// A thread that writes as long as it lives.
class Writer {
  public:
    explicit Writer(CreateHost& host)
        : thread_([this, &host] {
              while (!ends_.load()) {
                  host.Write();
                  rounds_.fetch_add(1);
              }
          }) {}
    ~Writer() {
        ends_.store(true);
        thread_.join();
    }
    long Rounds() const { return rounds_.load(); }

  private:
    std::atomic<bool> ends_{false};
    std::atomic<long> rounds_{0};
    std::thread thread_;
};
std::unique_ptr<Writer> writer;

void StartWriter(const benchmark::State& state) {
    Rows::Prepare(state);
    writer = std::make_unique<Writer>(Rows::CurrentHost());
}

void EndWriter(const benchmark::State&) {
    writer.reset();
}

// A row in which the writer does not get through is a failure, not a figure.
void RunBesideWriter(benchmark::State& state) {
    const bool counts = state.thread_index() == 0;
    const long before = counts ? writer->Rounds() : 0;
    const auto start = Clock::now();
    Rows::Run(state);
    if (!counts) return;
    const long rounds = writer->Rounds() - before;
    state.counters["writer_rounds_each_second"] = static_cast<double>(rounds) / SecondsSince(start);
    state.counters["writer_rounds"] = static_cast<double>(rounds);
}

void RegisterReaders(int keys, int threads) {
    benchmark::RegisterBenchmark(RowName("ours", "readers/alone").c_str(), Rows::Run)
        ->ArgNames({"keys", "live"})
        ->Args({keys, 0})
        ->Threads(threads)
        ->UseRealTime()
        ->Setup(Rows::Prepare);
    benchmark::RegisterBenchmark(RowName("ours", "readers/beside_writer").c_str(), RunBesideWriter)
        ->ArgNames({"keys", "live"})
        ->Args({keys, 0})
        ->Threads(threads)
        ->UseRealTime()
        ->Setup(StartWriter)
        ->Teardown(EndWriter);
}

void LogOneRecord(void* instance, int error) {
    LOG_FORMAT(kDebug, "benchmark record, instance {0}, plugin error {1}", instance, error);
}

std::atomic<long> received{0};

void Receive(void*, const char*, int, const char*, const char*, const char*, int) {
    received.store(received.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// To a receiver of the application's own: what the terminal or a disk costs is not the library's.
void RunWrittenRecord(benchmark::State& state) {
    SKRIB_SetThreshold(nullptr, SKRIB_LEVEL_TRACE);
    SKRIB_SetSink(&Receive, nullptr);
    const long before = received.load();
    for (auto _ : state) LogOneRecord(&state, 7);
    if (received.load() - before != static_cast<long>(state.iterations()))
        state.SkipWithError("records are missing");
    SKRIB_SetSink(nullptr, nullptr);
    SKRIB_SetThreshold(nullptr, SKRIB_LEVEL_OFF);
}

}  // namespace

void RegisterRows() {
    AtEnd(Rows::Forget);
    for (const int keys : {1, 10000}) {
        for (const int threads : {1, 2}) RegisterReaders(keys, threads);
    }
    RegisterSuppressedRecord(
        "ours", [] { SKRIB_SetThreshold(nullptr, SKRIB_LEVEL_OFF); },
        [](void* address, int number) { LogOneRecord(address, number); });
    benchmark::RegisterBenchmark(RowName("ours", "log/written").c_str(), RunWrittenRecord)
        ->UseRealTime();
}

}  // namespace bench
