#include "skrib.h"

static void Receive(void* user, const char* logger, int level, const char* text, const char* file,
                    const char* function, int line) {
    (void)logger;
    (void)text;
    (void)file;
    (void)function;
    *(int*)user = level * 100 + line;
}

/* What the receiver got of one record: 100 times the level plus the line. */
int SkribUsedFromC(void);
int SkribUsedFromC(void) {
    int got = 0;
    void* logger = SKRIB_GetLogger("c");
    if (SKRIB_SetThreshold("c", SKRIB_LEVEL_ERROR) != 0 ||
        SKRIB_GetThreshold(logger) != SKRIB_LEVEL_ERROR || SKRIB_SetSink(Receive, &got) != 0) {
        return -1;
    }
    SKRIB_Write(logger, SKRIB_LEVEL_ERROR, "text", __FILE__, __func__, 7);
    SKRIB_SetSink(0, 0);
    SKRIB_ReleaseLogger(logger);
    return got;
}
