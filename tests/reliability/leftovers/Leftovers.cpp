#include "Leftovers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include "CountedMalloc.h"
#include "reliability/LiveThreads.h"
#include "skrib.h"
#include "support/Allocation.h"

namespace vessa_test {
namespace {

constexpr long kUnjudged = 100;
constexpr long kCheckpoints = 10;

long CountEntries(const char* folder) {
    DIR* const directory = opendir(folder);
    if (directory == nullptr) return -1;
    long entries = 0;
    while (const dirent* const entry = readdir(directory)) entries += entry->d_name[0] != '.';
    closedir(directory);
    return entries;
}

// Without a stream: its buffer would be one of the mappings or bytes.
long CountLines(const char* path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return -1;
    static char buffer[1 << 16];
    long lines = 0;
    ssize_t read_now = 0;
    while ((read_now = read(file, buffer, sizeof buffer)) > 0) {
        for (ssize_t i = 0; i < read_now; ++i) lines += buffer[i] == '\n';
    }
    close(file);
    return lines;
}

void StayForEver() {
    for (;;) pause();
}

void LeaveOneBehind(const std::string& figure) {
    if (figure == "blocks") (void)::operator new(1);
    // The second keeps the compiler from leaving the first out.
    if (figure == "bytes" && std::malloc(24) == nullptr) std::abort();
    if (figure == "descriptors") (void)fcntl(0, F_DUPFD_CLOEXEC, 0);
    if (figure == "threads") std::thread(StayForEver).detach();
    if (figure == "mappings") {
        // Two pages of different rights: it joins neither its neighbours nor itself.
        const auto page = static_cast<std::size_t>(getpagesize());
        void* const two = mmap(nullptr, 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (two != MAP_FAILED) mprotect(two, page, PROT_READ);
    }
}

bool IsFigure(const std::string& name) {
    for (const char* const figure : {"blocks", "bytes", "descriptors", "threads", "mappings"}) {
        if (name == figure) return true;
    }
    return false;
}

[[noreturn]] void Refuse(const char* program) {
    std::fprintf(stderr, "%s: see Leftovers.h for its arguments\n", program);
    std::exit(2);
}

// What stands in the one and not in the other.
std::string Differences(const Figures& first, const Figures& now) {
    std::string text;
    const auto add = [&](const char* name, long was, long is) {
        if (was == is) return;
        text += std::string(text.empty() ? "" : ", ") + name + " " + std::to_string(was) + " -> " +
                std::to_string(is);
    };
    add("blocks", first.blocks, now.blocks);
    add("bytes", first.bytes, now.bytes);
    add("descriptors", first.descriptors, now.descriptors);
    add("threads", first.threads, now.threads);
    add("mappings", first.mappings, now.mappings);
    return text;
}

bool RunOne(const std::string& name, long number, const std::string& plant,
            const std::function<std::string(long)>& round) {
    std::string wrong;
    try {
        wrong = round(number);
    } catch (const std::exception& error) {
        wrong = error.what();
    }
    if (!wrong.empty()) std::printf("%s: round %ld: %s\n", name.c_str(), number, wrong.c_str());
    if (!plant.empty()) LeaveOneBehind(plant);
    return wrong.empty();
}

}  // namespace

Figures Figures::Now() {
    Figures now;
    now.bytes = BytesInUse();
    now.blocks = LiveBlocks();
    now.descriptors = CountEntries("/proc/self/fd") - 1;  // the one of the counting
    now.threads = CountLiveThreads();
    now.mappings = CountLines("/proc/self/maps");
    return now;
}

std::string Figures::Text() const {
    return std::to_string(blocks) + " blocks, " + std::to_string(bytes) + " bytes, " +
           std::to_string(descriptors) + " descriptors, " + std::to_string(threads) + " threads, " +
           std::to_string(mappings) + " mappings";
}

LeftoverOptions ReadOptions(int argc, char** argv, std::size_t counts) {
    SKRIB_SetThreshold(nullptr, SKRIB_LEVEL_OFF);
    LeftoverOptions options;
    int at = 1;
    for (; at < argc && std::strncmp(argv[at], "--", 2) != 0; ++at)
        options.counts.push_back(std::strtol(argv[at], nullptr, 10));
    if (at + 1 < argc && std::strcmp(argv[at], "--plant") == 0) options.plant = argv[at + 1];
    const bool asked_for_plant = at < argc;
    if (options.counts.size() != counts || (asked_for_plant && !IsFigure(options.plant)))
        Refuse(argv[0]);
    static char lines[1024];
    std::setvbuf(stdout, lines, _IOLBF, sizeof lines);
    return options;
}

bool RunRounds(const std::string& name, long rounds, const std::string& plant,
               const std::function<std::string(long)>& round) {
    if (rounds == 0) return true;
    for (long i = 0; i < kUnjudged; ++i) {
        if (!RunOne(name, i, plant, round)) return false;
    }
    // What a first counting keeps is there as well.
    Figures::Now();
    const Figures first = Figures::Now();
    std::printf("%s: after %ld rounds: %s\n", name.c_str(), kUnjudged, first.Text().c_str());
    long done = kUnjudged;
    for (long checkpoint = 1; checkpoint <= kCheckpoints; ++checkpoint) {
        const long until = kUnjudged + rounds * checkpoint / kCheckpoints;
        for (; done < until; ++done) {
            if (!RunOne(name, done, plant, round)) return false;
        }
        const Figures now = Figures::Now();
        if (now == first) continue;
        std::printf("%s: after %ld rounds: %s\n", name.c_str(), done, now.Text().c_str());
        std::printf("%s: LEFT BEHIND: %s\n", name.c_str(), Differences(first, now).c_str());
        return false;
    }
    std::printf("%s: after %ld rounds: the same, at each of %ld checkpoints\n", name.c_str(), done,
                kCheckpoints);
    return true;
}

}  // namespace vessa_test
