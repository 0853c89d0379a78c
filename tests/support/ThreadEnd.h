// ThreadEnd.h: word of the end of a thread, however it was started.
#ifndef VESSA_TESTS_SUPPORT_THREADEND_H
#define VESSA_TESTS_SUPPORT_THREADEND_H

namespace vessa_test {

// Has the function called on the calling thread when that ends, once, however often this is
// called; but not at the end of the process. There is one function for the whole program.
void TellOfThreadEnd(void (*function)());

}  // namespace vessa_test

#endif
