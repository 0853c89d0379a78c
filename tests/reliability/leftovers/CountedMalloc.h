// CountedMalloc.h: how many bytes were asked of malloc and its like, by anybody in the process, and
// not given back. A program that contains CountedMalloc.cpp has these functions of its own.
#ifndef VESSA_TESTS_RELIABILITY_LEFTOVERS_COUNTEDMALLOC_H
#define VESSA_TESTS_RELIABILITY_LEFTOVERS_COUNTEDMALLOC_H

namespace vessa_test {

long BytesInUse();

}  // namespace vessa_test

#endif
