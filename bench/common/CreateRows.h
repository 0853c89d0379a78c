// CreateRows.h: the rows "create": one operation makes an instance by a random key and destroys
// one. With instances live, the new one takes the place of a random live one, which is destroyed;
// without, it is destroyed itself.
//
// A Host is a contestant's world with a number of keys:
//
//     explicit Host(size_t keys);
//     void* Create(size_t key);               // null: failed
//     void Destroy(size_t key, void* instance);
//
// Both operations run on all threads of a row at once.
#ifndef VESSA_BENCH_CREATEROWS_H
#define VESSA_BENCH_CREATEROWS_H

#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Keys.h"
#include "common/Rows.h"

namespace bench {

struct CreateLimits {
    std::vector<int> keys = {1, 100, 10000, 100000};
    std::vector<int> live = {1000, 100000, 1000000};
    std::vector<int> threads = {1, 2, 4};
};

template <class Host>
class CreateRows {
  public:
    // Keys and live instances are varied on one thread; threads where a goal is set.
    static void Register(const std::string& contestant, const CreateLimits& limits) {
        AtEnd(Forget);
        for (const int keys : limits.keys) RegisterOne(contestant, keys, 0, 1);
        for (const int live : limits.live) RegisterOne(contestant, 1, live, 1);
        for (const int threads : limits.threads) {
            if (threads == 1) continue;
            RegisterOne(contestant, 1, 0, threads);
            if (Contains(limits.keys, 10000)) RegisterOne(contestant, 10000, 0, threads);
            if (Contains(limits.live, 100000)) RegisterOne(contestant, 1, 100000, threads);
        }
    }

    static void RegisterOne(const std::string& contestant, int keys, int live, int threads) {
        benchmark::RegisterBenchmark(RowName(contestant, "create").c_str(), Run)
            ->ArgNames({"keys", "live"})
            ->Args({keys, live})
            ->Threads(threads)
            ->UseRealTime()
            ->Setup(Prepare);
    }

    // The world of the current row.
    static Host& CurrentHost() { return *world_->host; }
    static void Prepare(const benchmark::State& state);
    static void Run(benchmark::State& state);
    static void Forget() { world_.reset(); }

  private:
    struct Live {
        void* instance;
        size_t key;
    };
    // What the runs of one row share; made once, since a benchmark is run several times to find
    // out how often it has to be repeated.
    struct World {
        std::string row;
        std::unique_ptr<Host> host;
        std::unique_ptr<RandomSequence> keys;
        std::unique_ptr<RandomSequence> spots;
        std::vector<std::vector<Live>> live_of_thread;

        ~World() {
            for (const auto& live : live_of_thread) {
                for (const Live& one : live) host->Destroy(one.key, one.instance);
            }
        }
    };

    static bool Contains(const std::vector<int>& values, int value) {
        return std::find(values.begin(), values.end(), value) != values.end();
    }

    static inline std::unique_ptr<World> world_;
};

template <class Host>
void CreateRows<Host>::Prepare(const benchmark::State& state) {
    const auto keys = static_cast<size_t>(state.range(0));
    const auto live = static_cast<size_t>(state.range(1));
    const auto threads = static_cast<size_t>(state.threads());
    const std::string row =
        std::to_string(keys) + "/" + std::to_string(live) + "/" + std::to_string(threads);
    if (world_ != nullptr && world_->row == row) return;
    world_.reset();
    auto world = std::make_unique<World>();
    world->row = row;
    world->host = std::make_unique<Host>(keys);
    world->keys = std::make_unique<RandomSequence>(keys);
    world->spots = std::make_unique<RandomSequence>(std::max<size_t>(live / threads, 1));
    world->live_of_thread.resize(threads);
    for (auto& of_thread : world->live_of_thread) {
        while (of_thread.size() < live / threads) {
            const size_t key = world->keys->at(of_thread.size());
            of_thread.push_back(Live{world->host->Create(key), key});
            if (of_thread.back().instance == nullptr) throw std::runtime_error("no instance");
        }
    }
    world_ = std::move(world);
}

template <class Host>
void CreateRows<Host>::Run(benchmark::State& state) {
    World& world = *world_;
    Host& host = *world.host;
    const auto thread = static_cast<size_t>(state.thread_index());
    std::vector<Live>& live = world.live_of_thread[thread];
    const bool replaces = !live.empty();
    size_t at = thread * 4099;
    for (auto _ : state) {
        Live one{nullptr, world.keys->at(at)};
        one.instance = host.Create(one.key);
        if (one.instance == nullptr) {
            state.SkipWithError("no instance");
            break;
        }
        if (replaces) std::swap(one, live[world.spots->at(at)]);
        host.Destroy(one.key, one.instance);
        ++at;
    }
}

}  // namespace bench

#endif
