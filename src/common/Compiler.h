// What differs between compilers, as macros, so that no other file asks.
#pragma once

#if defined(_MSC_VER) && !defined(__clang__)
#  define VESSA_FUNCTION_SIGNATURE __FUNCSIG__
#  define VESSA_CLASS_API __declspec(dllexport)
#else
#  define VESSA_FUNCTION_SIGNATURE __PRETTY_FUNCTION__
#  if defined(_WIN32)
#    define VESSA_CLASS_API __declspec(dllexport)
#  else
#    define VESSA_CLASS_API __attribute__((visibility("default")))
#  endif
#endif
