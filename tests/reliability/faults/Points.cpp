// Every allocation, or every call of the runtime that can fail, fails once: alone, together with
// all later ones of its step, and together with all later ones of the library's life. Each such
// point is a process of its own, forked from one that has the folder ready and has not loaded the
// library yet. What is demanded stands in Scenario.h; beyond that a point passes when nothing
// crashed, nothing hung, and when as much is left as after the same life without a failure: blocks,
// descriptors and threads. What the XML parser loses when it runs out of memory is counted apart
// and must not be more than the largest document.
//
//   faults_points <library> allocations|runtime [option...]
//     --every <k>       every k-th point
//     --jobs <n>        so many at a time
//     --watchdog <s>    seconds after which a process hangs
//     --log <level>     of the library's log, as for SKRIB_LEVEL
//     --mode alone|step|life   what fails besides (Fault.h); without it each of them
//     --plant <mistake> a mistake of the library's (Library.h), for the tests of the checks
//     --point <n> [--function <name>]   this one, in this process, with what it lost
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Point.h"

namespace faults {
namespace {

struct Options {
    std::string library;
    Kind kind = Kind::kAllocation;
    long every = 1;
    int jobs = 4;
    unsigned watchdog_s = 60;
    std::string log = "trace";
    std::string mode;
    Plant plant = Plant::kNone;
    long point = 0;
    std::string function;
};

Options Read(int count, char** words) {
    if (count < 3) throw std::invalid_argument("faults_points <library> allocations|runtime ...");
    Options options;
    options.library = words[1];
    options.kind = std::strcmp(words[2], "runtime") == 0 ? Kind::kRuntime : Kind::kAllocation;
    for (int i = 3; i < count; i += 2) {
        const std::string name = words[i];
        if (i + 1 == count) throw std::invalid_argument(name + " wants a value");
        const std::string value = words[i + 1];
        if (name == "--every")
            options.every = std::stol(value);
        else if (name == "--jobs")
            options.jobs = std::stoi(value);
        else if (name == "--watchdog")
            options.watchdog_s = static_cast<unsigned>(std::stoul(value));
        else if (name == "--log")
            options.log = value;
        else if (name == "--mode")
            options.mode = value;
        else if (name == "--plant")
            options.plant = PlantNamed(value);
        else if (name == "--point")
            options.point = std::stol(value);
        else if (name == "--function")
            options.function = value;
        else
            throw std::invalid_argument("no option is called " + name);
    }
    return options;
}

// A kind of failure with the life in which none comes.
struct Series {
    Fault fault;
    std::string name;
    Remains reference{};
};

struct Task {
    size_t series;
    long nth;
    Extent extent;
};

struct NamedExtent {
    Extent extent;
    const char* name;
};
constexpr NamedExtent kExtents[] = {
    {Extent::kAlone, "alone"}, {Extent::kStep, "step"}, {Extent::kLife, "life"}};

const char* NameOf(Extent extent) {
    return kExtents[static_cast<size_t>(extent)].name;
}

// Of all workers together.
struct Tally {
    std::atomic<size_t> next;
    std::atomic<long> verdicts[5];
    std::atomic<long> unreached;
    std::atomic<long> parser_blocks;
    std::atomic<long> parser_bytes;
};

void Raise(std::atomic<long>& most, long value) {
    long known = most.load();
    while (value > known && !most.compare_exchange_weak(known, value)) {
    }
}

class Run {
  public:
    explicit Run(const Options& options) : options_(options) {
        void* const shared =
            mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) throw std::runtime_error("mmap");
        tally_ = new (shared) Tally{};
    }

    // Whether all is well.
    bool All() {
        Prepare();
        if (options_.point != 0) return Explain();
        MakeTasks();
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
        if (options_.kind == Kind::kAllocation) {
            series_.push_back({Fault{}, "allocation"});
        } else {
            int count = 0;
            const RuntimeFunction* const functions = RuntimeFunctions(&count);
            for (int i = 0; i < count; ++i) {
                if (!options_.function.empty() && options_.function != functions[i].name) continue;
                series_.push_back(
                    {Fault{Kind::kRuntime, functions[i].function}, functions[i].name});
            }
        }
        // A short watchdog is for what hangs.
        constexpr unsigned kPatienceS = 60;
        Place place(options_.library, Plant::kNone, std::max(options_.watchdog_s, kPatienceS));
        for (Series& series : series_) {
            const Judgement judgement = place.Live(series.fault, nullptr);
            if (judgement.verdict != Verdict::kGood)
                throw std::runtime_error(series.name + ", nothing failing: " + judgement.reason);
            series.reference = place.remains();
        }
    }

    bool Explain() {
        Place place(options_.library, options_.plant, options_.watchdog_s);
        Fault fault = series_.front().fault;
        fault.nth = options_.point;
        for (const NamedExtent& extent : kExtents) {
            if (options_.mode == extent.name) fault.extent = extent.extent;
        }
        place.Explain(fault);
        return place.remains().finished;
    }

    void MakeTasks() {
        for (size_t i = 0; i < series_.size(); ++i) {
            for (const NamedExtent& extent : kExtents) {
                if (!options_.mode.empty() && options_.mode != extent.name) continue;
                for (long n = 1; n <= series_[i].reference.counted; n += options_.every)
                    tasks_.push_back({i, n, extent.extent});
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
            for (;;) {
                const size_t next = tally_->next.fetch_add(1);
                if (next >= tasks_.size()) break;
                RunTask(place, tasks_[next]);
            }
        }
        std::fflush(nullptr);
        _exit(0);
    }

    void RunTask(Place& place, const Task& task) {
        const Series& series = series_[task.series];
        Fault fault = series.fault;
        fault.nth = task.nth;
        fault.extent = task.extent;
        const Judgement judgement = place.Live(fault, &series.reference);
        ++tally_->verdicts[static_cast<size_t>(judgement.verdict)];
        Raise(tally_->parser_blocks, place.remains().census.parser_blocks);
        Raise(tally_->parser_bytes, place.remains().census.parser_bytes);
        if (judgement.verdict == Verdict::kGood) {
            if (place.remains().failed == 0) ++tally_->unreached;
            return;
        }
        std::printf("%s: %s %ld %s: %s\n", kVerdicts[static_cast<size_t>(judgement.verdict)],
                    series.name.c_str(), task.nth, NameOf(task.extent), judgement.reason.c_str());
    }

    bool Print() {
        long points = 0;
        for (const Series& series : series_) {
            points += series.reference.counted;
            if (options_.kind == Kind::kRuntime)
                std::printf("  %s: %ld calls\n", series.name.c_str(), series.reference.counted);
        }
        const auto of = [&](Verdict verdict) {
            return tally_->verdicts[static_cast<size_t>(verdict)].load();
        };
        if (options_.kind == Kind::kAllocation) {
            const Census& most = series_.front().reference.largest_document;
            std::printf(
                "  lost by the parser at most %ld blocks of %ld bytes; the largest document "
                "has %ld of %ld\n",
                tally_->parser_blocks.load(), tally_->parser_bytes.load(), most.parser_blocks,
                most.parser_bytes);
        }
        const long bad = static_cast<long>(tasks_.size()) - of(Verdict::kGood);
        if (tally_->unreached.load() != 0)
            std::printf("  %ld points at the end of lives that had fewer\n",
                        tally_->unreached.load());
        std::printf(
            "points %ld runs %zu every %ld: %ld crashes, %ld hangs, %ld leaks, %ld broken\n",
            points, tasks_.size(), options_.every, of(Verdict::kCrash), of(Verdict::kHang),
            of(Verdict::kLeak), of(Verdict::kBroken));
        const long few = 8 + static_cast<long>(tasks_.size()) / 100;
        return bad == 0 && !tasks_.empty() && tally_->unreached.load() <= few;
    }

    const Options options_;
    std::vector<Series> series_;
    std::vector<Task> tasks_;
    Tally* tally_;
};

}  // namespace
}  // namespace faults

int main(int count, char** words) {
    try {
        const faults::Options options = faults::Read(count, words);
        setenv("SKRIB_LEVEL", options.log.c_str(), 1);
        unsetenv("SKRIB_FILE");
        return faults::Run(options).All() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "faults_points: %s\n", error.what());
        return 2;
    }
}
