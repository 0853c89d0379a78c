// SyncPoint.h: named places in the code where a test may hold a thread. In the library as it is
// delivered a sync point is nothing at all; in the build for schedule tests
// (VESSA_SYNC_POINTS) it calls a function that the test program, or a library that is loaded
// before, defines.
//
// A name says the step that the thread has just done or is about to do: "gate.reader.shown". It
// is unique in the sources: docs/design/points.md lists them, a test compares.
#ifndef VESSA_COMMON_SYNCPOINT_H
#define VESSA_COMMON_SYNCPOINT_H

#ifdef VESSA_SYNC_POINTS
// about is the object of the step, for the test to tell two of them apart; it may be null. It is
// called with whatever locks the step holds, must not throw and must not call the library.
extern "C" void VESSA_SyncPoint(const char* name, const void* about) noexcept;
#define VESSA_SYNC_POINT(name, about) VESSA_SyncPoint(name, about)
#else
#define VESSA_SYNC_POINT(name, about) static_cast<void>(0)
#endif

#endif
