/*
 * Check.h: the checks of the C programs in this folder. A failed check is reported on standard
 * error and makes the program's exit status CHECK_FAILED; the program goes on.
 */
#ifndef VESSA_TESTS_CAPI_CHECK_H
#define VESSA_TESTS_CAPI_CHECK_H

#include <stdio.h>
#include <string.h>

#define CHECK_FAILED 1

static int check_failures = 0;

#define CHECK(condition) CheckTrue((condition) != 0, #condition, __FILE__, __LINE__)
#define CHECK_INT(actual, expected) CheckInt((actual), (expected), #actual, __FILE__, __LINE__)
#define CHECK_TEXT(actual, expected) CheckText((actual), (expected), #actual, __FILE__, __LINE__)

static inline int CheckTrue(int holds, const char* text, const char* file, int line) {
    if (holds) return 1;
    ++check_failures;
    fprintf(stderr, "%s:%d: failed: %s\n", file, line, text);
    return 0;
}

static inline int CheckInt(long long actual, long long expected, const char* text, const char* file,
                           int line) {
    if (actual == expected) return 1;
    ++check_failures;
    fprintf(stderr, "%s:%d: %s is %lld, not %lld\n", file, line, text, actual, expected);
    return 0;
}

static inline int CheckText(const char* actual, const char* expected, const char* text,
                            const char* file, int line) {
    if (actual != NULL && strcmp(actual, expected) == 0) return 1;
    ++check_failures;
    fprintf(stderr, "%s:%d: %s is \"%s\", not \"%s\"\n", file, line, text,
            actual != NULL ? actual : "(null)", expected);
    return 0;
}

static inline int CheckResult(void) {
    return check_failures == 0 ? 0 : CHECK_FAILED;
}

#endif
