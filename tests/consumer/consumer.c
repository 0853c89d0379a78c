/* Starts the installed library on a root that does not exist, receives its log through the
 * installed logging library, and stops it again. */
#include <skrib.h>
#include <stdio.h>
#include <string.h>
#include <vessa/vessa.h>

static int started;
static int stopped;

static void Receive(void* user, const char* logger, int level, const char* text, const char* file,
                    const char* function, int line) {
    (void)user, (void)level, (void)file, (void)function, (void)line;
    if (strcmp(logger, "vessa") != 0) return;
    started += strcmp(text, "init vessa succeeded") == 0;
    stopped += strcmp(text, "uninit vessa succeeded") == 0;
}

int main(void) {
    void* instance = &started;
    int error = 1;
    SKRIB_SetThreshold("vessa", SKRIB_LEVEL_INFORMATION);
    SKRIB_SetSink(Receive, NULL);
    if (VESSA_Init() != VESSA_OK) return 1;
    if (VESSA_CreateInstance("nobody", &instance, &error) != VESSA_ERR_NOT_REGISTERED) return 2;
    if (instance != NULL || error != 0) return 3;
    VESSA_Uninit();
    printf("started %d, stopped %d\n", started, stopped);
    return started == 1 && stopped == 1 ? 0 : 4;
}
