// ReadFunction.h: the function by which the bytes of a file are read. Included by ReadHook.h.
#ifndef VESSA_TESTS_UNIT_POSIX_READFUNCTION_H
#define VESSA_TESTS_UNIT_POSIX_READFUNCTION_H

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

#include "TestPlatform.h"

STAND_IN_C(ssize_t, read)(int file, void* buffer, size_t size) {
    vessa_test::RunBeforeRead();
    static const auto real = vessa_test::FunctionBehind<ssize_t(int, void*, size_t)>("read");
    return real(file, buffer, size);
}

#endif
