#include "support/Sync.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace vessa_test {

void ThrowTimedOut(const std::string& what) {
    ADD_FAILURE() << "waited too long for " << what;
    throw WaitTimedOut("waited too long for " + what);
}

void Gate::Open() {
    // Notified under the lock: the waiter may destroy the gate as soon as it can go on.
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
}

void Gate::Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    WaitBounded(
        changed_, lock, [this] { return open_; }, "a gate to be opened");
}

bool Gate::IsOpen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
}

void Barrier::ArriveAndWait() {
    std::unique_lock<std::mutex> lock(mutex_);
    const long round = round_;
    if (++arrived_ == threads_) {
        arrived_ = 0;
        ++round_;
        changed_.notify_all();
        return;
    }
    WaitBounded(
        changed_, lock, [&] { return round_ != round; }, "the others at a barrier");
}

JoiningThread::JoiningThread(std::function<void()> function) : ended_(std::make_shared<Gate>()) {
    thread_ = std::thread([ended = ended_, body = std::move(function)] {
        try {
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "a thread ended with the exception " << error.what();
        }
        ended->Open();
    });
    id_ = thread_.get_id();
}

JoiningThread::~JoiningThread() {
    try {
        Join();
    } catch (const WaitTimedOut&) {
        std::fprintf(stderr, "a thread of the test does not end\n");
        std::abort();
    }
}

void JoiningThread::Join() {
    if (!thread_.joinable()) return;
    ended_->Wait();
    thread_.join();
}

}  // namespace vessa_test
