#include "common/AsymmetricFence.h"

#include "common/ThreadScope.h"
#include "process/Process.h"

std::atomic<bool> AsymmetricFence::is_asymmetric_{false};

void AsymmetricFence::Prepare() {
    if (process::CanFenceAllThreads()) is_asymmetric_.store(true);
}

void AsymmetricFence::Heavy() {
    Full();
    // A thread that takes its place after this look has run a fence since.
    if (ThreadPlaces::Owners() <= 1) return;
    if (is_asymmetric_.load() && !process::FenceAllThreads()) {
        // The system took the call back. What a thread has stored without a fence is seen by all
        // within far less than this wait; from now on every thread runs its own.
        is_asymmetric_.store(false);
        for (unsigned round = 0; round < process::kRoundsOfAMillisecond; ++round)
            process::GiveWay(round);
    }
}
