// What differs between compilers, as macros, so that no other file asks.
#pragma once

#if defined(_MSC_VER) && !defined(__clang__)
#  define VESSA_FUNCTION_SIGNATURE __FUNCSIG__
#  define VESSA_COLD __declspec(noinline)
#  define VESSA_FLATTEN
#  define VESSA_CLASS_API __declspec(dllexport)
#else
#  define VESSA_FUNCTION_SIGNATURE __PRETTY_FUNCTION__
// A function that is seldom called: kept out of those that are called often.
#  define VESSA_COLD __attribute__((noinline, cold))
// A function that is called so often that all it calls, but for the seldom, belongs into it.
#  define VESSA_FLATTEN __attribute__((flatten))
#  if defined(_WIN32)
#    define VESSA_CLASS_API __declspec(dllexport)
#  else
#    define VESSA_CLASS_API __attribute__((visibility("default")))
#  endif
#endif
