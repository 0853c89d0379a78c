/* That this compiles is the test: the public headers as C, without warnings, nothing before
 * them. */
/* clang-format off */
#include "vessa/vessa.h"
#include "vessa/tarnet.h"
/* clang-format on */

#if !defined(__STDC_VERSION__) || __STDC_VERSION__ != 201112L
#  error "not compiled as C11"
#endif

int HeadersInC_Results(void);

/* Every result in one switch: two of the same number would not compile. */
static int IsResult(enum vessa_result result) {
    switch (result) {
#define CASE(name, number, meaning) case name:
        VESSA_RESULT_LIST(CASE)
#undef CASE
        return 1;
        case VESSA_RESULT_FORCE_INT:
            break;
    }
    return 0;
}

int HeadersInC_Results(void) {
    int results = 0;
#define COUNT(name, number, meaning) results += IsResult(name) && name == (number);
    VESSA_RESULT_LIST(COUNT)
#undef COUNT
    return results;
}

_Static_assert(sizeof(tarnet_export_table_v1) == 7 * sizeof(void (*)(void)), "version 1");
_Static_assert(sizeof(tarnet_export_table_v2) == 8 * sizeof(void (*)(void)), "version 2");
_Static_assert(TARNET_FKEY_SIZE == 256, "fkey entries");
