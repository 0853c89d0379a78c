// Names for clang's thread-safety attributes; other compilers see nothing.
#pragma once

#if defined(__clang__)
#  define VESSA_TSA(x) __attribute__((x))
#else
#  define VESSA_TSA(x)
#endif

#define CAPABILITY(name) VESSA_TSA(capability(name))
#define SCOPED_CAPABILITY VESSA_TSA(scoped_lockable)
#define GUARDED_BY(lock) VESSA_TSA(guarded_by(lock))
#define ACQUIRED_BEFORE(...) VESSA_TSA(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) VESSA_TSA(acquired_after(__VA_ARGS__))
#define REQUIRES(...) VESSA_TSA(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) VESSA_TSA(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) VESSA_TSA(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) VESSA_TSA(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) VESSA_TSA(release_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) VESSA_TSA(release_generic_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS VESSA_TSA(no_thread_safety_analysis)
