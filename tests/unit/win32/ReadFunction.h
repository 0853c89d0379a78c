// ReadFunction.h: the function by which the bytes of a file are read. Included by ReadHook.h.
#ifndef VESSA_TESTS_UNIT_WIN32_READFUNCTION_H
#define VESSA_TESTS_UNIT_WIN32_READFUNCTION_H

#include <cstddef>
#include <cstdio>

#include "TestPlatform.h"

STAND_IN_C(size_t, fread)(void* buffer, size_t size, size_t count, FILE* file) {
    vessa_test::RunBeforeRead();
    static const auto real =
        vessa_test::FunctionBehind<size_t(void*, size_t, size_t, FILE*)>("fread");
    return real(buffer, size, count, file);
}

#endif
