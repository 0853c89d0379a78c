#include "host/watch.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include "host/report.h"
#include "host/roundtrip.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kPollPeriod{250};
constexpr int kPollsUntilTold = 2;

// Whoever reads this line through a pipe wants it now.
void Say(const std::string& text) {
    fmt::print("[{:%H:%M:%S}] {}\n", fmt::localtime(std::time(nullptr)), text);
    std::fflush(stdout);
}

}  // namespace

Watcher::Watcher(const std::set<std::string>& only, const Corpus& corpus, int level,
                 Progress& progress, const volatile std::sig_atomic_t& stop)
    : only_(only), corpus_(corpus), level_(level), progress_(progress), stop_(stop) {}

bool Watcher::Run(double seconds) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    Say("watching; a change below the plug-in root is noticed within 30 seconds");
    try {
        while (stop_ == 0) {
            Poll();
            const std::chrono::duration<double> passed = Clock::now() - start;
            if (seconds > 0 && passed.count() >= seconds) break;
            std::this_thread::sleep_for(kPollPeriod);
        }
    } catch (const Interrupted&) {
        progress_.Clear();
    }
    Say("stopped watching");
    return good_;
}

void Watcher::Poll() {
    std::map<std::string, Key> usable;
    const Refusals before = std::move(refusals_);
    refusals_.clear();
    for (const Key& key : ConfiguredKeys()) {
        if (!only_.empty() && only_.count(key.fkey) == 0) continue;
        bool is_codec = false;
        if (!Probe(key, before, is_codec)) continue;
        usable.emplace(key.fkey, key);
        if (present_.count(key.fkey) != 0) continue;
        Say(fmt::format("+ {} (module {}{})", key.fkey, key.module, is_codec ? "" : ", no codec"));
        if (is_codec && !corpus_.files.empty()) Use(key);
    }
    for (const auto& [fkey, key] : present_) {
        if (usable.count(fkey) == 0) Say(fmt::format("- {} (module {})", fkey, key.module));
    }
    present_ = std::move(usable);
}

bool Watcher::Probe(const Key& key, const Refusals& before, bool& is_codec) {
    try {
        is_codec = Instance(key.fkey).FindStream() != nullptr;
        return true;
    } catch (const LibraryError& error) {
        Refusal& refusal = refusals_[key.fkey];
        refusal.result = error.result();
        const auto last = before.find(key.fkey);
        const bool same = last != before.end() && last->second.result == error.result();
        refusal.times = same ? last->second.times + 1 : 1;
        // A key is listed a moment before it is registered: only what lasts is worth a line.
        if (refusal.times == kPollsUntilTold) Say(fmt::format("! {}", error.what()));
        return false;
    }
}

void Watcher::Use(const Key& key) {
    try {
        const Outcome outcome = host::Run(key, corpus_, level_, progress_, stop_);
        PrintFailures(outcome);
        Say(fmt::format("  {}: {} files, {} bytes, ratio {:.2f}, {}", key.fkey, outcome.files,
                        outcome.plain_bytes, outcome.Ratio(),
                        outcome.failures.empty() ? "verified" : "NOT verified"));
        good_ = good_ && outcome.failures.empty();
    } catch (const std::exception& error) {
        // It went between the probe and the use.
        progress_.Clear();
        Say(fmt::format("! {}", error.what()));
    }
}

}  // namespace host
