/* ProcessEndWays.h: a part of ProcessEnd.c. Each system has a folder with a header of this name. */

/* Past the exit handlers of the program; the libraries hear of it. */
static void ExitProcessWith7(void) {
    if (CheckResult() == 0) ExitProcess(7);
}

static void Terminate(void) {
    if (CheckResult() == 0) TerminateProcess(GetCurrentProcess(), 7);
}

/* 0 if there is no such way. */
static int RunSystemsWay(const char* way, const char* operation) {
    if (strcmp(way, "exit_process") == 0) {
        CHECK_INT(VESSA_Init(), VESSA_OK);
        ExitProcessWith7();
    } else if (strcmp(way, "exit_process_with_instance") == 0) {
        CHECK_INT(VESSA_Init(), VESSA_OK);
        Create("a");
        ExitProcessWith7();
    } else if (strcmp(way, "exit_process_while_held") == 0) {
        HoldThread(operation);
        ExitProcessWith7();
    } else if (strcmp(way, "exit_process_inside") == 0) {
        leave = &ExitProcessWith7;
        ExitInside(operation, 0);
    } else if (strcmp(way, "terminate") == 0) {
        CHECK_INT(VESSA_Init(), VESSA_OK);
        Create("a");
        Terminate();
    } else if (strcmp(way, "terminate_while_held") == 0) {
        HoldThread(operation);
        Terminate();
    } else if (strcmp(way, "exit_with_7") == 0) {
        CHECK_INT(VESSA_Init(), VESSA_OK);
        Create("a");
        exit(7);
    } else {
        return 0;
    }
    return 1;
}
