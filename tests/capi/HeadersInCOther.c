/* As HeadersInC.c, in the other order and each twice. */
/* clang-format off */
#include "vessa/tarnet.h"
#include "vessa/vessa.h"
#include "vessa/tarnet.h"
#include "vessa/vessa.h"
/* clang-format on */

int HeadersInC_Handle(void);

int HeadersInC_Handle(void) {
    return TARNET_INVALID_HANDLE == (void*)0;
}
