#include <algorithm>
#include <new>
#include <stdexcept>

#include "support/RuntimeState.h"
#include "support/Sync.h"
#include "support/ThreadEnd.h"

namespace vessa_test {
namespace {

void ThisThreadEnds() {
    TheLongWaits().ThreadEnds(ThreadId());
}

}  // namespace

LongWaits& TheLongWaits() {
    // No block of the heap: the first call may come while a test counts them.
    alignas(LongWaits) static unsigned char storage[sizeof(LongWaits)];
    static LongWaits& waits = *new (storage) LongWaits;
    return waits;
}

// The time of one wait among the others; ends also with the cancellation of the thread.
class LongWaits::Stay {
  public:
    Stay(LongWaits& waits, Record& record) : waits_(waits), record_(record) {}
    ~Stay() {
        record_.waiting = false;
        record_.ticked = false;
        waits_.changed_.notify_all();
    }
    Stay(const Stay&) = delete;
    Stay& operator=(const Stay&) = delete;

  private:
    LongWaits& waits_;
    Record& record_;
};

void LongWaits::Start() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.erase(std::remove_if(records_.begin(), records_.end(),
                                  [](const auto& record) { return !record->waiting; }),
                   records_.end());
    active_ = true;
}

void LongWaits::End() {
    std::lock_guard<std::mutex> lock(mutex_);
    active_ = false;
    changed_.notify_all();
}

LongWaits::Record* LongWaits::Enter(const void* semaphore, unsigned milliseconds) {
    const long self = ThreadId();
    const auto known = std::find_if(records_.begin(), records_.end(), [&](const auto& record) {
        return !record->ended && record->thread == self && record->semaphore == semaphore;
    });
    Record* record = nullptr;
    if (known != records_.end()) {
        record = known->get();
    } else {
        static int last_id = 0;
        record = records_.emplace_back(std::make_unique<Record>()).get();
        record->id = ++last_id;
        record->thread = self;
        record->semaphore = semaphore;
    }
    record->milliseconds = milliseconds;
    ++record->waits;
    record->order = ++order_;
    record->waiting = true;
    changed_.notify_all();
    return record;
}

int LongWaits::Wait(tova_sem_t* sem, unsigned milliseconds, int error, bool* by_clock) {
    *by_clock = false;
    TellOfThreadEnd(&ThisThreadEnds);
    std::unique_lock<std::mutex> lock(mutex_);
    Record& record = *Enter(*sem, milliseconds);
    const Stay stay(*this, record);
    for (;;) {
        // A post raises the count first and comes here for the mutex after that, so none is
        // missed between this look and the wait below.
        if (CallReal(Tova::SemTimedWait, TOVA_SemTimedWait, sem, 0U) == 0) return 0;
        if (record.ticked) {
            SetLastSystemError(error);
            return -1;
        }
        if (!active_) {
            *by_clock = true;
            return -1;
        }
        changed_.wait(lock);
    }
}

void LongWaits::Posted() {
    if (!active_) return;
    std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
}

void LongWaits::ThreadEnds(long thread) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& record : records_) {
        if (record->thread != thread || record->ended) continue;
        record->ended = true;
        record->thread = 0;
    }
    changed_.notify_all();
}

std::vector<RuntimeWaiter> LongWaits::Waiters(std::size_t at_least) {
    std::vector<const Record*> waiting;
    std::unique_lock<std::mutex> lock(mutex_);
    WaitBounded(
        changed_, lock,
        [&] {
            waiting.clear();
            for (const auto& record : records_) {
                if (record->waiting) waiting.push_back(record.get());
            }
            return waiting.size() >= at_least;
        },
        "threads in long waits");
    std::sort(waiting.begin(), waiting.end(),
              [](const Record* a, const Record* b) { return a->order < b->order; });
    std::vector<RuntimeWaiter> waiters;
    for (const Record* record : waiting)
        waiters.push_back({record->id, record->milliseconds, record->waits});
    return waiters;
}

LongWaits::Record* LongWaits::Find(int id) {
    for (const auto& record : records_) {
        if (record->id == id) return record.get();
    }
    throw std::logic_error("no such waiter");
}

LongWaits::Record* LongWaits::FindTickable(int id) {
    Record* found = nullptr;
    for (const auto& record : records_) {
        if (!record->waiting || record->ticked) continue;
        if (id != 0 && record->id != id) continue;
        if (found == nullptr || record->order > found->order) found = record.get();
    }
    return found;
}

int LongWaits::StartTick(int id) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (id != 0 && Find(id)->ended) throw std::logic_error("the waiter has ended");
    Record* record = nullptr;
    WaitBounded(
        changed_, lock, [&] { return (record = FindTickable(id)) != nullptr; },
        "a thread in a long wait");
    record->ticked = true;
    record->waits_at_tick = record->waits;
    changed_.notify_all();
    return record->id;
}

bool LongWaits::AwaitRound(int id) {
    std::unique_lock<std::mutex> lock(mutex_);
    Record* const record = Find(id);
    WaitBounded(
        changed_, lock, [&] { return record->ended || record->waits > record->waits_at_tick; },
        "the end of a round");
    return record->waiting;
}

}  // namespace vessa_test
