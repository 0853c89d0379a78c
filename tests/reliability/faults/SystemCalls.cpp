// Every system call of a life of the library fails once: alone, together with all later ones of its
// kind in its step, and together with all later ones of its kind in the library's life. The library
// is the built one; the calls are failed from outside by strace, one level below the runtime. What
// is demanded stands in Scenario.h and Points.cpp.
//
// A point is the nth call of one kind in each thread that makes as many, from the library's load
// on: the calls of two threads can fail in one life.
//
// Not failed: futex, by which the C library ends the process where an error cannot be; brk, whose
// error the kernel never gives; rt_sigprocmask, exit, and the calls that have no error.
//
//   faults_system_calls <library> [--every <k>] [--jobs <n>] [--watchdog <s>] [--call <name>]
//                       [--plant <mistake>]
// Exits with 77, and says why, where no process may be traced.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Point.h"
#include "Tracing.h"

namespace faults {
namespace {

struct SystemCall {
    const char* name;
    const char* error;  // what an overloaded system gives
};

constexpr SystemCall kCalls[] = {
    {"openat", "EMFILE"},  {"read", "EIO"},         {"pread64", "EIO"},   {"newfstatat", "EIO"},
    {"fstat", "EIO"},      {"getdents64", "EIO"},   {"access", "EACCES"}, {"lseek", "EIO"},
    {"mmap", "ENOMEM"},    {"mprotect", "ENOMEM"},  {"munmap", "ENOMEM"}, {"clone3", "EAGAIN"},
    {"clone", "EAGAIN"},   {"membarrier", "EPERM"}, {"close", "EIO"},     {"write", "ENOSPC"},
    {"madvise", "ENOMEM"}, {"getcwd", "ENOENT"},
};
constexpr int kCannotTrace = 77;

struct Options {
    std::string library;
    long every = 1;
    int jobs = 4;
    unsigned watchdog_s = 120;
    std::string call;
    Plant plant = Plant::kNone;
};

Options Read(int count, char** words) {
    if (count < 2) throw std::invalid_argument("faults_system_calls <library> ...");
    Options options;
    options.library = words[1];
    for (int i = 2; i + 1 < count; i += 2) {
        const std::string name = words[i];
        const std::string value = words[i + 1];
        if (name == "--every")
            options.every = std::stol(value);
        else if (name == "--jobs")
            options.jobs = std::stoi(value);
        else if (name == "--watchdog")
            options.watchdog_s = static_cast<unsigned>(std::stoul(value));
        else if (name == "--call")
            options.call = value;
        else if (name == "--plant")
            options.plant = PlantNamed(value);
        else
            throw std::invalid_argument("no option is called " + name);
    }
    return options;
}

struct Task {
    const SystemCall* call;
    long nth;
    Extent extent;
};

struct Tally {
    std::atomic<size_t> next;
    std::atomic<long> verdicts[5];
    std::atomic<long> never;
};

// How often the thread that calls most often made each call.
std::map<std::string, long> CountCalls(const std::string& text) {
    std::map<std::pair<std::string, std::string>, long> of_threads;
    std::istringstream lines(text);
    std::map<std::string, long> most;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string thread;
        std::string rest;
        words >> thread >> std::ws;
        std::getline(words, rest);
        const size_t end = rest.find('(');
        if (end == std::string::npos || rest[0] == '<') continue;
        const std::string name = rest.substr(0, end);
        most[name] = std::max(most[name], ++of_threads[{thread, name}]);
    }
    return most;
}

class Run {
  public:
    explicit Run(const Options& options) : options_(options) {
        void* const shared =
            mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) throw std::runtime_error("mmap");
        tally_ = new (shared) Tally{};
    }

    bool All() {
        Prepare();
        std::vector<pid_t> workers;
        for (int i = 0; i < options_.jobs; ++i) workers.push_back(StartWorker());
        bool all_ended = true;
        for (const pid_t worker : workers) {
            int status = 0;
            waitpid(worker, &status, 0);
            all_ended = all_ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        return Print() && all_ended;
    }

  private:
    static constexpr const char* kVerdicts[] = {"good", "CRASH", "HANG", "BROKEN", "LEAK"};

    void Prepare() {
        std::string calls;
        // "?": not every machine has all of them.
        for (const SystemCall& call : kCalls)
            calls += std::string(calls.empty() ? "?" : ",?") + call.name;
        Place place(options_.library, Plant::kNone, options_.watchdog_s);
        Tracing tracing;
        tracing.Prepare(calls, "");
        const Judgement judgement = place.Live(Fault{Kind::kSystemCall}, nullptr, &tracing);
        if (judgement.verdict != Verdict::kGood)
            throw std::runtime_error("nothing failing: " + judgement.reason);
        reference_ = place.remains();
        counts_ = CountCalls(tracing.Text());
        for (const SystemCall& call : kCalls) {
            if (!options_.call.empty() && options_.call != call.name) continue;
            for (const Extent extent : {Extent::kAlone, Extent::kStep, Extent::kLife}) {
                for (long n = 1; n <= counts_[call.name]; n += options_.every)
                    tasks_.push_back({&call, n, extent});
            }
        }
    }

    pid_t StartWorker() {
        std::fflush(nullptr);
        const pid_t worker = fork();
        if (worker < 0) throw std::runtime_error("fork");
        if (worker != 0) return worker;
        {
            Place place(options_.library, options_.plant, options_.watchdog_s);
            Tracing tracing;
            for (;;) {
                const size_t next = tally_->next.fetch_add(1);
                if (next >= tasks_.size()) break;
                RunTask(place, tracing, tasks_[next]);
            }
        }
        std::fflush(nullptr);
        _exit(0);
    }

    void RunTask(Place& place, Tracing& tracing, const Task& task) {
        const std::string call = task.call->name;
        const std::string injection = call + ":error=" + task.call->error +
                                      ":when=" + std::to_string(task.nth) +
                                      (task.extent == Extent::kAlone ? "" : "+");
        tracing.Prepare(call, injection);
        Fault fault{Kind::kSystemCall};
        fault.extent = task.extent;
        // A close that fails from outside does not close.
        const Judgement judgement = place.Live(fault, &reference_, &tracing, call == "close");
        ++tally_->verdicts[static_cast<size_t>(judgement.verdict)];
        if (judgement.verdict == Verdict::kGood) {
            if (place.remains().failed == 0) ++tally_->never;
            return;
        }
        std::printf("%s: %s%s: %s\n", kVerdicts[static_cast<size_t>(judgement.verdict)],
                    injection.c_str(), task.extent == Extent::kLife ? " to the end" : "",
                    judgement.reason.c_str());
    }

    bool Print() {
        long points = 0;
        for (const auto& count : counts_) {
            points += count.second;
            std::printf("  %s: %ld calls\n", count.first.c_str(), count.second);
        }
        const auto of = [&](Verdict verdict) {
            return tally_->verdicts[static_cast<size_t>(verdict)].load();
        };
        std::printf(
            "points %ld runs %zu every %ld: %ld crashes, %ld hangs, %ld leaks, %ld broken; "
            "%ld without their call\n",
            points, tasks_.size(), options_.every, of(Verdict::kCrash), of(Verdict::kHang),
            of(Verdict::kLeak), of(Verdict::kBroken), tally_->never.load());
        return of(Verdict::kGood) == static_cast<long>(tasks_.size()) && !tasks_.empty();
    }

    const Options options_;
    Remains reference_{};
    std::map<std::string, long> counts_;
    std::vector<Task> tasks_;
    Tally* tally_;
};

}  // namespace
}  // namespace faults

int main(int count, char** words) {
    try {
        const faults::Options options = faults::Read(count, words);
        setenv("SKRIB_LEVEL", "warning", 1);
        unsetenv("SKRIB_FILE");
        return faults::Run(options).All() ? 0 : 1;
    } catch (const faults::CannotTrace& reason) {
        std::printf("skipped: %s\n", reason.what());
        return faults::kCannotTrace;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "faults_system_calls: %s\n", error.what());
        return 2;
    }
}
