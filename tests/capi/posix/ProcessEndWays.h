/* ProcessEndWays.h: a part of ProcessEnd.c. Each system has a folder with a header of this name. */
#include <sys/wait.h>

/* The forked child ends by exit; its exit status tells that its exit handlers came through. */
static void ForkAndExit(void) {
    int status = 0;
    const pid_t child = fork();
    if (child == 0) exit(7);
    CHECK(child > 0);
    CHECK(waitpid(child, &status, 0) == child);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 7);
}

static void Fork(void) {
    CHECK_INT(VESSA_Init(), VESSA_OK);
    void* const instance = Create("a");
    ForkAndExit();
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);
    VESSA_Uninit();
    ForkAndExit();
}

static void ForkWhileHeld(const char* operation) {
    HoldThread(operation);
    ForkAndExit();
}

/* 0 if there is no such way. */
static int RunSystemsWay(const char* way, const char* operation) {
    if (strcmp(way, "fork") == 0)
        Fork();
    else if (strcmp(way, "fork_while_held") == 0)
        ForkWhileHeld(operation);
    else
        return 0;
    return 1;
}
