// Sync.h: what tests order threads with. Every wait is bounded: after kLongWait it fails the
// test and throws, so that a hang is reported where it happens.
#ifndef VESSA_TESTS_SUPPORT_SYNC_H
#define VESSA_TESTS_SUPPORT_SYNC_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace vessa_test {

constexpr std::chrono::seconds kLongWait{30};

class WaitTimedOut : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Fails the running test and throws WaitTimedOut. The failure counts even where the exception
// is caught, as in an operation of a module.
[[noreturn]] void ThrowTimedOut(const std::string& what);

// Waits until ready() is true, checked with the lock held.
template <class Ready>
void WaitBounded(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Ready ready,
                 const std::string& what) {
    if (changed.wait_for(lock, kLongWait, ready)) return;
    lock.unlock();
    ThrowTimedOut(what);
}

// Closed until somebody opens it; it stays open then.
class Gate {
  public:
    void Open();
    void Wait();
    bool IsOpen() const;

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

// Lets the given number of threads go on together, as often as wanted.
class Barrier {
  public:
    explicit Barrier(int threads) : threads_(threads) {}
    void ArriveAndWait();

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    const int threads_;
    int arrived_ = 0;
    long round_ = 0;
};

// A thread that is joined at the latest by the destructor. What its function throws fails the
// test. A thread that does not end within kLongWait ends the program with a message: nothing
// that it uses could be destroyed.
class JoiningThread {
  public:
    explicit JoiningThread(std::function<void()> function);
    ~JoiningThread();
    JoiningThread(const JoiningThread&) = delete;
    JoiningThread& operator=(const JoiningThread&) = delete;

    void Join();
    bool HasEnded() const { return ended_->IsOpen(); }
    // Also valid after Join.
    std::thread::id Id() const { return id_; }

  private:
    std::shared_ptr<Gate> ended_;
    std::thread thread_;
    std::thread::id id_;
};

}  // namespace vessa_test

#endif
