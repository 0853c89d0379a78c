// Leftovers.h: what a process has, counted exactly, and rounds after which it must have as much as
// before.
//
// Two programs run rounds of what a host does for years:
//
//   vessa_leftovers_provider <rounds>           register, create, destroy, unregister
//   vessa_leftovers_library <lists> <starts>    the same through list files; start and stop
//
// The first hundred rounds are not judged: in them the library makes what it keeps while it is
// loaded (places of threads, the stripes of its instance table), and the system what it keeps for
// the process (the stack of a thread that ended). From then on the five figures must be the same at
// each of ten checkpoints; there is no tolerance.
//
// A new case is one more branch in a program's round. It must leave what it found, and come in the
// first hundred rounds.
//
// --plant <figure> as the last argument lets each round leave one of the figure behind: blocks,
// bytes, descriptors, threads or mappings. Leftovers_test.cpp sees to it that each is reported.
#ifndef VESSA_TESTS_RELIABILITY_LEFTOVERS_LEFTOVERS_H
#define VESSA_TESTS_RELIABILITY_LEFTOVERS_LEFTOVERS_H

#include <functional>
#include <string>
#include <vector>

namespace vessa_test {

struct Figures {
    long blocks = 0;       // given out by operator new
    long bytes = 0;        // asked of malloc and its like; see CountedMalloc.h
    long descriptors = 0;  // /proc/self/fd
    long threads = 0;      // reliability/LiveThreads.h
    long mappings = 0;     // lines of /proc/self/maps

    // Counts; the counting itself leaves nothing.
    static Figures Now();
    std::string Text() const;
    friend bool operator==(const Figures& a, const Figures& b) { return a.Text() == b.Text(); }
};

// The arguments of a program: numbers, and what is planted.
struct LeftoverOptions {
    std::vector<long> counts;
    std::string plant;
};

// Reads the arguments and turns the log off. Ends the program with 2 if there are not as many
// numbers as said.
LeftoverOptions ReadOptions(int argc, char** argv, std::size_t counts);

// Runs round(0), round(1) ... and prints the figures. False: they were not the same all the time.
// Also false if a round throws, or says what was wrong.
bool RunRounds(const std::string& name, long rounds, const std::string& plant,
               const std::function<std::string(long)>& round);

}  // namespace vessa_test

#endif
