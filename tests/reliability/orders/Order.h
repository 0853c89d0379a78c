// Order.h: carries an order out. An order is data: the threads with what each one does, and the
// steps that they take, one after the other.
//
//     EXPECT_TRUE(CarriedOut({{"A", [&] { Read(); }}, {"B", [&] { Write(); }}},
//                            {"A:gate.reader.shown", "B:gate.writer.counted", "B:blocks",
//                             "A:ends", "B:ends"}));
//
// One step is "<thread>:" and
//   a sync point   the thread goes on until it reaches that point (docs/design/points.md), and is
//                  held there. What it passes on the way does not hold it.
//   blocks         the thread goes on, and comes to stand in a lock or a wait of the library's.
//                  The order fails if it gets to its next point, or to its end, instead.
//   goes           the thread goes on, and nobody waits for it.
//   ends           the thread goes on until its function has returned.
// So one thread runs at a time, but for those that were let go by "blocks" and "goes", which run
// on as soon as they can. A thread starts with its first step. Whoever is held at the end of the
// order goes on, and the order is carried out when all functions have returned.
//
// A thread without a function is one that the test does not start, such as a timer's: it is the
// first other thread that reaches the first point of that name in the order, and is not waited
// for at the end.
//
// A step that is not done within StepLimit, or whose thread ends before it, fails the order: the
// result names the step, and of each thread what it does and where it was last.
//
// Checked is what the calls gave, what is registered, loaded and left over afterwards, which calls
// the modules had, and with Passes which way a thread went. A new order is a test in the file of
// its subject; that it bites is shown with a planted bug (vessa_order_bites in CMakeLists.txt).
//
// Nothing here orders threads in the eyes of the thread sanitizer: what two threads of an order
// share without the library's own synchronisation is a race that it reports.
#ifndef VESSA_TESTS_RELIABILITY_ORDERS_ORDER_H
#define VESSA_TESTS_RELIABILITY_ORDERS_ORDER_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "common/SyncPoint.h"

namespace vessa_test {

// 30 seconds, or what VESSA_ORDER_LIMIT_MS says.
std::chrono::milliseconds StepLimit();

struct OrderThread {
    std::string name;
    std::function<void()> function;
};

testing::AssertionResult CarriedOut(const std::vector<OrderThread>& threads,
                                    const std::vector<std::string>& steps,
                                    std::chrono::milliseconds limit = StepLimit());

// How often a thread passed a point while the last order was carried out.
int Passes(const std::string& thread, const std::string& point);

// A point of the test's own, such as "test.reader.inside".
inline void At(const char* point) {
    VESSA_SyncPoint(point, nullptr);
}

}  // namespace vessa_test

#endif
