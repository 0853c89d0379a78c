// The rows of the library that start it.
#ifndef VESSA_BENCH_STARTROWS_H
#define VESSA_BENCH_STARTROWS_H

namespace bench {

void RegisterStartRows();

}  // namespace bench

#endif
