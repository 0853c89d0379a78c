#include "Life.h"

#include "Counters.h"

namespace vessa_random {
namespace {

constexpr int kOperations = 300;
constexpr int kMostUsers = 3;
constexpr uint64_t kLifeOperations = uint64_t{1} << 40;

}  // namespace

void LifeThread::Run(long phase) {
    for (int i = 0; i < kOperations; ++i) {
        const auto operation = static_cast<int64_t>(phase) * kOperations + i;
        ThisPosition() = Position{number_, operation};
        Choices choices(TheOptions().seed, static_cast<uint64_t>(number_),
                        kLifeOperations + static_cast<uint64_t>(operation));
        const int chosen = choices.Below(10);
        const bool stop_inside = choices.OneIn(4);
        if (chosen < 3)
            Start();
        else if (chosen < 6)
            Stop();
        else if (chosen < 8)
            Create(stop_inside);
        else
            Destroy();
    }
    while (users_ > 0) Stop();
    while (!instances_.empty()) Destroy();
}

void LifeThread::Start() {
    if (users_ == kMostUsers) return;
    Count(kLifeStart);
    const int result = library_.Init();
    CountResult(result);
    if (result == VESSA_OK)
        ++users_;
    else if (result != VESSA_FAILED || users_ > 0 || !may_fail_)
        Mismatch("start", "VESSA_OK", ResultName(result));
}

void LifeThread::Stop() {
    if (users_ == 0) return;
    Count(kLifeStart);
    --users_;
    library_.Uninit();
}

RandomAction LifeThread::Answer(RandomCall& call) {
    if (call.operation != kRandomCreate || !stop_inside_ || users_ == 0) return kRandomGoOn;
    stop_inside_ = false;
    const Answers none(nullptr);
    if (users_ == 1) Count(kLifeNestedStop);
    Stop();
    return kRandomGoOn;
}

void LifeThread::Create(bool stop_inside) {
    const bool certain = users_ > 0;
    void* instance = nullptr;
    int error = 0;
    stop_inside_ = stop_inside;
    int result = 0;
    {
        const Answers answers(this);
        result = library_.CreateInstance(kStableKey, &instance, &error);
    }
    stop_inside_ = false;
    CountResult(result);
    if (result == VESSA_OK && instance != nullptr)
        instances_.push_back(instance);
    else if (result != VESSA_ERR_NOT_REGISTERED || certain || instance != nullptr)
        Mismatch("create between starts and stops",
                 certain ? "VESSA_OK" : "VESSA_OK or VESSA_ERR_NOT_REGISTERED", ResultName(result));
}

// Whether the library runs or not.
void LifeThread::Destroy() {
    if (instances_.empty()) return;
    void* const instance = instances_.back();
    instances_.pop_back();
    void* found = nullptr;
    int error = 0;
    int result = library_.QueryInterface(instance, kRandomIkey, &found, &error);
    CountResult(result);
    if (result != VESSA_OK)
        Mismatch("query between starts and stops", "VESSA_OK", ResultName(result));
    result = library_.DestroyInstance(instance, &error);
    CountResult(result);
    if (result != VESSA_OK)
        Mismatch("destroy between starts and stops", "VESSA_OK", ResultName(result));
}

}  // namespace vessa_random
