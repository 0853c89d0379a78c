#ifndef TESTS_TOVA_MODULES_MODULE_H
#define TESTS_TOVA_MODULES_MODULE_H

#if defined(_WIN32)
#  define MODULE_EXPORT __declspec(dllexport)
#  define MODULE_IMPORT __declspec(dllimport)
#else
#  define MODULE_EXPORT __attribute__((visibility("default")))
#  define MODULE_IMPORT
#endif

#endif
