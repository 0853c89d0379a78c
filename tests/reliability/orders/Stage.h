// Stage.h: where the threads of an order stand, and how they are held and let go. It is used by
// the threads themselves at each sync point and by the one that directs them.
//
// All of it is plain memory, a futex, and functions that the thread sanitizer does not look into:
// what is held here must not become ordered by being held.
#ifndef VESSA_TESTS_RELIABILITY_ORDERS_STAGE_H
#define VESSA_TESTS_RELIABILITY_ORDERS_STAGE_H

#include <chrono>
#include <string>

namespace vessa_test {
namespace stage {

constexpr int kThreads = 4;
constexpr int kNobody = -1;

enum class Doing { kNotStarted, kRunning, kHeld, kEnded };

// Clears the stage. Only while no thread is on it.
void Open(int threads);
// A thread that the test does not start: it comes onto the stage at the point that it is wanted
// at first.
void SetStranger(int thread);
// From now on nobody is held, and whoever is goes on.
void Close();

// The thread's own: the first and the last thing that it does.
void Begin(int thread);
void End(int thread);

// The director's. The thread is held at its next pass of the point; null for none.
void WantAt(int thread, const char* point);
void LetGo(int thread);
Doing WhatDoes(int thread);
// Waits for a change of what any thread does, that came after the one that Changes gave, or until
// the time is over.
int Changes();
void AwaitChange(int since, std::chrono::steady_clock::time_point end);
// Whether the thread sleeps in the system and not here.
bool IsAsleep(int thread);

std::string LastPoint(int thread);
int Passes(int thread, const std::string& point);

}  // namespace stage
}  // namespace vessa_test

#endif
