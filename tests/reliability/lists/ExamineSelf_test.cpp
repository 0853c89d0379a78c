// The examination finds what it is there for: each time one thing is made wrong.
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "reliability/lists/Examine.h"

namespace vessa_lists {
namespace {

using Verdict = ListCase::Verdict;

ListCase Good() {
    ListCase list_case;
    list_case.name = "good";
    list_case.content =
        "<vessa><plugin fkey='a' file='./a.so' delayload='true'/><plugin fkey='b' "
        "file='./b.so'  delayload='true'/></vessa>";
    list_case.verdict = Verdict::kAccepted;
    list_case.fkeys = {"a", "b"};
    return list_case;
}

ListCase Broken() {
    ListCase list_case;
    list_case.name = "broken";
    list_case.content = "<vessa>";
    list_case.log = {"5 xmlDoc Parse failed, err[true] {*}, xml - <vessa>"};
    return list_case;
}

bool Finds(const Examination& examination, const std::string& part) {
    for (const std::string& problem : examination.problems)
        if (problem.find(part) != std::string::npos) return true;
    return false;
}

std::string Described(const Examination& examination) {
    std::string text = "problems:";
    for (const std::string& problem : examination.problems) text += "\n" + problem;
    return text;
}

void ExpectFound(const Examination& examination, const std::string& part) {
    EXPECT_TRUE(Finds(examination, part)) << Described(examination);
}

TEST(Examine, HasNothingToSayOfWhatIsAsExpected) {
    EXPECT_TRUE(Examine(Good()).problems.empty()) << Described(Examine(Good()));
    EXPECT_TRUE(Examine(Broken()).problems.empty()) << Described(Examine(Broken()));
}

TEST(Examine, FindsHalfAList) {
    ListCase more = Good();
    more.fkeys.push_back("c");
    ExpectFound(Examine(more), "new: registered are [a | b | good] instead of [a | b | c | good]");
    ListCase less = Good();
    less.fkeys.pop_back();
    ExpectFound(Examine(less), "change: declared are [a | b] instead of [a]");
}

TEST(Examine, FindsAListThatIsReadAndShouldBeRefusedAndTheOtherWayRound) {
    ListCase refused = Good();
    refused.verdict = Verdict::kRefused;
    ExpectFound(Examine(refused), "change: registered are [a | b | good] instead of [good | kept]");
    ListCase accepted = Broken();
    accepted.verdict = Verdict::kAccepted;
    accepted.fkeys = {"a"};
    ExpectFound(Examine(accepted), "new: registered are [good] instead of [a | good]");
}

TEST(Examine, FindsAReasonThatIsMissingOrOneTooMany) {
    ListCase silent = Broken();
    silent.log.clear();
    ExpectFound(Examine(silent), "the log has");
    ListCase twice = Broken();
    twice.log.push_back(twice.log.front());
    ExpectFound(Examine(twice), "the log has");
    ListCase other = Broken();
    other.log = {"5 section vessa does not exist"};
    ExpectFound(Examine(other), "the log has");
}

TEST(Examine, FindsTooMuchProcessorTime) {
    const auto burn = [] {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        const auto seconds = now.tv_sec;
        const auto end = now.tv_nsec + 1000000 * (kMostProcessorMs + 50);
        while ((now.tv_sec - seconds) * 1000000000 + now.tv_nsec < end)
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    };
    ExpectFound(Examine(Good(), burn), "ms of processor time");
}

TEST(Examine, FindsTooMuchMemory) {
    if (kHasSanitizer) GTEST_SKIP() << "a sanitizer's own memory cannot be told from the list's";
    const auto grow = [] {
        constexpr size_t kBytes = size_t{kMostKiB} * 1024;
        const std::unique_ptr<char, decltype(&std::free)> memory(
            static_cast<char*>(std::malloc(kBytes)), &std::free);
        if (memory == nullptr) throw std::runtime_error("no memory for it");
        std::memset(memory.get(), 1, kBytes);
        // The compiler would leave out what nobody looks at.
        if (static_cast<volatile char*>(memory.get())[kBytes / 2] != 1) std::abort();
    };
    ExpectFound(Examine(Good(), grow), "no memory for it");
}

// Not optimised away: it uses the frame after the call.
int Recurse(int depth) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    const int below = depth == 0 ? 0 : Recurse(depth - 1);
    return below + frame[0];
}

TEST(Examine, FindsARecursionThatTheSmallStackDoesNotHold) {
    const auto recurse = [] {
        if (Recurse(2000) == 1) std::abort();
    };
    ExpectFound(Examine(Good(), recurse), "the child ended with status");
}

TEST(Examine, FindsAChildThatEnds) {
    ExpectFound(Examine(Good(), [] { std::abort(); }), "the child ended with status");
}

TEST(Examine, FindsAFileThatDoesNotGrowBecauseNobodyReadsIt) {
    ListCase growing = Good();
    growing.kind = "grows";
    growing.verdict = Verdict::kRefused;
    growing.content.resize(1 << 20, ' ');
    ExpectFound(Examine(growing), "the file was not read");
}

#if defined(__has_feature)
#  if __has_feature(address_sanitizer)
TEST(Examine, FindsAReportOfTheSanitizer) {
    const auto overrun = [] {
        const std::unique_ptr<char[]> memory(new char[8]);
        volatile char* const bytes = memory.get();
        volatile size_t behind = 8;
        bytes[behind] = 1;
    };
    ExpectFound(Examine(Good(), overrun), "the child ended with status");
}
#  endif
#endif

TEST(Examine, FindsATruncationThatIsNotAsItShouldBe) {
    ListCase list_case = Good();
    const size_t whole = list_case.content.size();
    const std::string reason = "5 xmlDoc Parse failed, err[true] {*}, xml - {*}";
    // A lone "<" is taken for a node that nobody knows.
    const std::string no_section = "5 section vessa does not exist";
    const std::map<size_t, std::string> cuts = {
        {0, reason}, {1, no_section}, {2, reason}, {whole, "accepted"}};
    list_case.cuts = cuts;
    const Examination fine = ExamineTruncations(list_case);
    EXPECT_TRUE(fine.problems.empty()) << Described(fine);
    list_case.cuts[whole - 1] = "accepted";
    ExpectFound(ExamineTruncations(list_case),
                "cut to " + std::to_string(whole - 1) + ": registered are [good]");
    list_case.cuts = cuts;
    list_case.cuts.erase(whole);
    ExpectFound(ExamineTruncations(list_case),
                "cut to " + std::to_string(whole) + ": registered are [a | b | good]");
    list_case.cuts = cuts;
    list_case.cuts[20] = no_section;
    ExpectFound(ExamineTruncations(list_case), "cut to 20: the log has");
}

}  // namespace
}  // namespace vessa_lists
