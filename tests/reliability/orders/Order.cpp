#include "reliability/orders/Order.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "reliability/orders/Stage.h"

namespace vessa_test {
namespace {

using Clock = std::chrono::steady_clock;
using stage::Doing;

struct Step {
    enum Kind { kPoint, kBlocks, kGoes, kEnds } kind = kPoint;
    int thread = stage::kNobody;
    std::string point;
    std::string text;
};

// The names of the last order's threads, for Passes.
std::vector<std::string>& LastNames() {
    static std::vector<std::string>& names = *new std::vector<std::string>;
    return names;
}

// The text for good: a thread that the test did not start may look at it after the order.
const char* Kept(const std::string& text) {
    static std::set<std::string>& kept = *new std::set<std::string>;
    return kept.insert(text).first->c_str();
}

class Director {
  public:
    Director(const std::vector<OrderThread>& threads, const std::vector<std::string>& steps,
             std::chrono::milliseconds limit)
        : threads_(threads), limit_(limit) {
        if (threads_.size() > size_t{stage::kThreads}) trouble_ = "too many threads in the order";
        for (const std::string& text : steps) steps_.push_back(Read(text));
    }

    testing::AssertionResult CarryOut() {
        if (!trouble_.empty()) return testing::AssertionFailure() << trouble_;
        OpenStage();
        std::vector<std::thread> running = Start();
        for (size_t at = 0; at < steps_.size() && trouble_.empty(); ++at) Do(at);
        stage::Close();
        AwaitAll();
        for (std::thread& thread : running) thread.join();
        if (trouble_.empty()) trouble_ = Thrown();
        if (trouble_.empty()) return testing::AssertionSuccess();
        return testing::AssertionFailure() << trouble_;
    }

  private:
    Step Read(const std::string& text) {
        Step step;
        step.text = text;
        const size_t colon = text.find(':');
        const std::string name = text.substr(0, colon);
        for (size_t i = 0; i < threads_.size(); ++i)
            if (threads_[i].name == name) step.thread = static_cast<int>(i);
        if (colon == std::string::npos || step.thread == stage::kNobody)
            trouble_ = "the step '" + text + "' is of no thread of the order";
        step.point = colon == std::string::npos ? "" : text.substr(colon + 1);
        if (step.point == "blocks") step.kind = Step::kBlocks;
        if (step.point == "goes") step.kind = Step::kGoes;
        if (step.point == "ends") step.kind = Step::kEnds;
        return step;
    }

    void OpenStage() {
        LastNames().clear();
        stage::Open(static_cast<int>(threads_.size()));
        for (int i = 0; i < Count(); ++i) {
            LastNames().push_back(threads_[static_cast<size_t>(i)].name);
            has_been_let_go_[i] = IsStranger(i);
            if (IsStranger(i)) stage::SetStranger(i);
            stage::WantAt(i, NextPoint(i, 0));
        }
    }

    std::vector<std::thread> Start() {
        thrown_ = std::make_unique<std::string[]>(threads_.size());
        std::vector<std::thread> running;
        for (int i = 0; i < Count(); ++i) {
            if (IsStranger(i)) continue;
            running.emplace_back([this, i] {
                stage::Begin(i);
                try {
                    threads_[static_cast<size_t>(i)].function();
                } catch (const std::exception& error) {
                    thrown_[static_cast<size_t>(i)] = error.what();
                }
                stage::End(i);
            });
        }
        return running;
    }

    // The point at which the thread is to be held next, from that step on.
    const char* NextPoint(int thread, size_t from) const {
        for (size_t at = from; at < steps_.size(); ++at)
            if (steps_[at].thread == thread && steps_[at].kind == Step::kPoint)
                return Kept(steps_[at].point);
        return nullptr;
    }

    void Do(size_t at) {
        const Step& step = steps_[at];
        const int thread = step.thread;
        // A thread that was let go before may be at this step's point already, or at its end.
        if (!has_been_let_go_[thread]) {
            stage::WantAt(thread, NextPoint(thread, at));
            stage::LetGo(thread);
        }
        has_been_let_go_[thread] = step.kind == Step::kBlocks || step.kind == Step::kGoes;
        if (step.kind == Step::kPoint) Await(step, Doing::kHeld, false);
        if (step.kind == Step::kEnds) Await(step, Doing::kEnded, false);
        if (step.kind == Step::kBlocks) Await(step, Doing::kRunning, true);
    }

    void Await(const Step& step, Doing wanted, bool asleep) {
        const auto end = Clock::now() + limit_;
        for (;;) {
            const int changes = stage::Changes();
            const Doing doing = stage::WhatDoes(step.thread);
            if (doing == wanted && (!asleep || stage::IsAsleep(step.thread))) return;
            if (doing == Doing::kHeld) return Fail(step, "did not block");
            if (doing == Doing::kEnded) return Fail(step, "was not reached");
            if (Clock::now() >= end) return Fail(step, "took too long");
            // Nobody tells when a thread falls asleep in the library.
            const auto look = std::chrono::microseconds(200);
            stage::AwaitChange(changes, asleep ? Clock::now() + look : end);
        }
    }

    void Fail(const Step& step, const char* why) {
        std::ostringstream text;
        text << "the order's step '" << step.text << "' " << why << ";";
        for (int i = 0; i < Count(); ++i) text << " " << Whereabouts(i);
        trouble_ = text.str();
    }

    std::string Whereabouts(int thread) const {
        const std::string last = stage::LastPoint(thread);
        std::string text = threads_[static_cast<size_t>(thread)].name;
        switch (stage::WhatDoes(thread)) {
            case Doing::kNotStarted:
                return text + " has not started;";
            case Doing::kHeld:
                return text + " is held at " + last + ";";
            case Doing::kEnded:
                return text + " has ended;";
            case Doing::kRunning:
                break;
        }
        text += stage::IsAsleep(thread) ? " waits" : " runs";
        return text + (last.empty() ? " and passed nothing;" : " since " + last + ";");
    }

    // Everybody goes on by himself now. Nothing that a thread uses could be destroyed before it
    // ended.
    void AwaitAll() {
        const auto end = Clock::now() + StepLimit();
        for (int i = 0; i < Count(); ++i) {
            while (!IsStranger(i) && stage::WhatDoes(i) != Doing::kEnded) {
                const int changes = stage::Changes();
                if (stage::WhatDoes(i) == Doing::kEnded) break;
                if (Clock::now() >= end) GiveUp();
                stage::AwaitChange(changes, end);
            }
        }
    }

    [[noreturn]] void GiveUp() const {
        std::fprintf(stderr, "%s\nat the end of the order:", trouble_.c_str());
        for (int i = 0; i < Count(); ++i) std::fprintf(stderr, " %s", Whereabouts(i).c_str());
        std::fprintf(stderr, "\n");
        std::abort();
    }

    std::string Thrown() const {
        for (size_t i = 0; i < threads_.size(); ++i)
            if (!thrown_[i].empty()) return threads_[i].name + " has thrown: " + thrown_[i];
        return "";
    }

    int Count() const { return static_cast<int>(threads_.size()); }
    bool IsStranger(int thread) const { return !threads_[static_cast<size_t>(thread)].function; }

    const std::vector<OrderThread>& threads_;
    const std::chrono::milliseconds limit_;
    std::vector<Step> steps_;
    bool has_been_let_go_[stage::kThreads] = {};
    std::unique_ptr<std::string[]> thrown_;
    std::string trouble_;
};

}  // namespace

std::chrono::milliseconds StepLimit() {
    const char* const text = std::getenv("VESSA_ORDER_LIMIT_MS");
    return std::chrono::milliseconds(text != nullptr ? std::atol(text) : 30000);
}

testing::AssertionResult CarriedOut(const std::vector<OrderThread>& threads,
                                    const std::vector<std::string>& steps,
                                    std::chrono::milliseconds limit) {
    return Director(threads, steps, limit).CarryOut();
}

int Passes(const std::string& thread, const std::string& point) {
    for (size_t i = 0; i < LastNames().size(); ++i)
        if (LastNames()[i] == thread) return stage::Passes(static_cast<int>(i), point);
    ADD_FAILURE() << "no thread " << thread;
    return -1;
}

}  // namespace vessa_test
