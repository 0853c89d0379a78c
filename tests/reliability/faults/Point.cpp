#include "Point.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "Scenario.h"
#include "Tracing.h"
#include "reliability/LiveThreads.h"
#include "skrib.h"

namespace faults {
namespace {

constexpr long kBlocksOfModule = 12;
constexpr long kBytesOfModule = 2500;

int CountEntries(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

// The log keeps its loggers for ever: those that only a failure asks for are there in every life.
void KeepLoggers() {
    const Watch watch(false);
    for (const char* const name : {"vessa", "tova"}) SKRIB_ReleaseLogger(SKRIB_GetLogger(name));
}

std::string Blocks(long blocks, long bytes) {
    return std::to_string(blocks) + " blocks of " + std::to_string(bytes) + " bytes";
}

}  // namespace

Place::Place(const std::string& library, Plant plant, unsigned watchdog_s)
    : folder_(library), plant_(plant), watchdog_s_(watchdog_s) {
    void* const shared =
        mmap(nullptr, sizeof(Remains), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    remains_ = static_cast<Remains*>(shared);
    error_file_ = std::tmpfile();
    if (error_file_ == nullptr) throw std::system_error(errno, std::generic_category(), "tmpfile");
    // The C library remembers the time zone, or that it had no memory for it.
    tzset();
}

Place::~Place() {
    munmap(remains_, sizeof(Remains));
    std::fclose(error_file_);
}

void Place::LiveHere(const Fault& fault, Tracing* tracing) {
    vessa_test::Runtime runtime;
    Faults faults(fault, runtime, tracing);
    Scenario scenario(folder_, faults, runtime, plant_, &remains_->step);
    if (tracing != nullptr) tracing->AwaitTracer();
    try {
        scenario.Live();
        remains_->counted = faults.Counted();
        faults.Stop();
        scenario.LiveShortly();
        remains_->finished = true;
    } catch (const std::exception& broken) {
        std::snprintf(remains_->broken, sizeof remains_->broken, "%s", broken.what());
    }
    KeepLoggers();
    remains_->failed = faults.Failed();
    remains_->failed_documents = AllocationNumbers().failed_documents;
    remains_->census = TakeCensus();
    remains_->largest_document = LargestDocument();
    remains_->threads = vessa_test::CountLiveThreads();
    remains_->descriptors = CountEntries("/proc/self/fd");
}

Judgement Place::Live(const Fault& fault, const Remains* reference, Tracing* tracing,
                      bool may_keep_descriptors) {
    folder_.Reset();
    *remains_ = Remains{};
    if (ftruncate(fileno(error_file_), 0) != 0 || lseek(fileno(error_file_), 0, SEEK_SET) != 0)
        throw std::system_error(errno, std::generic_category(), "ftruncate");
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        // A child that hangs ends itself.
        alarm(watchdog_s_);
        dup2(fileno(error_file_), STDERR_FILENO);
        LiveHere(fault, tracing);
        _exit(0);
    }
    int status = 0;
    if (tracing != nullptr) {
        status = tracing->Serve(child);
    } else {
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
    }
    return Judge(status, fault, reference, may_keep_descriptors);
}

Judgement Place::Judge(int status, const Fault& fault, const Remains* reference,
                       bool may_keep_descriptors) const {
    const Remains& is = *remains_;
    const std::string where = std::string(" in \"") + (is.step != nullptr ? is.step : "") + "\"";
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return {Verdict::kHang, "no end after " + std::to_string(watchdog_s_) + " s" + where};
    if (WIFSIGNALED(status))
        return {Verdict::kCrash, strsignal(WTERMSIG(status)) + where + ErrorText()};
    if (WEXITSTATUS(status) != 0)
        return {Verdict::kCrash,
                "exit status " + std::to_string(WEXITSTATUS(status)) + where + ErrorText()};
    if (!is.finished) return {Verdict::kBroken, is.broken};
    if (is.threads != 1) return {Verdict::kLeak, "a thread is left"};
    if (reference == nullptr) return {};
    // A life differs from another by a few allocations, as its addresses have more digits or less.
    constexpr long kFew = 16;
    const bool was_there = is.counted >= fault.nth;
    if (fault.nth != 0 && is.failed == 0 && (was_there || is.counted < reference->counted - kFew))
        return {Verdict::kBroken, "nothing failed"};
    const long kept = is.descriptors - reference->descriptors;
    if (kept < 0 || kept > (may_keep_descriptors ? is.failed : 0))
        return {Verdict::kLeak, std::to_string(kept) + " more descriptors"};
    return JudgeBlocks(fault, *reference);
}

Judgement Place::JudgeBlocks(const Fault& fault, const Remains& reference) const {
    const Remains& is = *remains_;
    const Census& census = is.census;
    const Census& usual = reference.census;
    const std::string left =
        Blocks(census.blocks, census.bytes) + " are left, not " + Blocks(usual.blocks, usual.bytes);
    if (fault.kind == Kind::kRuntime && fault.function == vessa_test::Tova::UnloadDSo) {
        // Each module that stays is known to the system's loader and to the library's own.
        const long blocks = census.blocks - usual.blocks;
        const long bytes = census.bytes - usual.bytes;
        const bool bounded = blocks <= kBlocksOfModule * (is.failed + 1) &&
                             bytes <= kBytesOfModule * (is.failed + 1);
        return bounded ? Judgement{} : Judgement{Verdict::kLeak, left};
    }
    if (census.blocks != usual.blocks || census.bytes != usual.bytes) return {Verdict::kLeak, left};
    const Census& most = reference.largest_document;
    if (census.parser_blocks <= is.failed_documents * most.parser_blocks &&
        census.parser_bytes <= is.failed_documents * most.parser_bytes)
        return {};
    return {Verdict::kLeak, "the parser lost " + Blocks(census.parser_blocks, census.parser_bytes) +
                                " of " + std::to_string(is.failed_documents) + " documents"};
}

// What the child wrote: a sanitizer's report, or the last of it.
std::string Place::ErrorText() const {
    constexpr size_t kMost = 2000;
    std::string text(static_cast<size_t>(lseek(fileno(error_file_), 0, SEEK_END)), '\0');
    const ssize_t read = pread(fileno(error_file_), text.data(), text.size(), 0);
    text.resize(read > 0 ? static_cast<size_t>(read) : 0);
    const size_t report = text.find("==ERROR: ");
    if (report != std::string::npos) return ":\n" + text.substr(report, kMost);
    return ":\n" + text.substr(text.size() - std::min(text.size(), kMost));
}

void Place::Explain(const Fault& fault) {
    folder_.Reset();
    *remains_ = Remains{};
    KeepCallers();
    LiveHere(fault, nullptr);
    if (!remains_->finished) std::fprintf(stderr, "%s\n", remains_->broken);
    PrintBlocks();
}

}  // namespace faults
