/* An application that ends without stopping the library, in the way that its arguments say. It
 * exports the hook of the test modules and so acts inside their operations. */
#include "HostSystem.h"
/* Before all others. */
#include "Check.h"
#include "modules/TestInterface.h"
#include "vessa/vessa.h"

/* What the hook does in the operation of this name: ends the process, or reports that it is
 * inside and waits for the rest of the process's life. */
static const char* exit_in = "";
static const char* stay_in = "";
static event_t inside;
static event_t released;

static void ExitCleanly(void) {
    exit(CheckResult());
}

/* How the process ends in exit_in. */
static void (*leave)(void) = &ExitCleanly;

HOST_EXPORT int TestModule_Hook(const char* module, const char* operation, void* a, void* b,
                                int* result) {
    (void)module;
    (void)a;
    (void)b;
    (void)result;
    if (strcmp(operation, exit_in) == 0) {
        exit_in = "";
        leave();
    }
    if (strcmp(operation, stay_in) == 0) {
        stay_in = "";
        Happen(&inside);
        Await(&released);
    }
    return 0;
}

static void* Create(const char* fkey) {
    void* instance = NULL;
    CHECK_INT(VESSA_CreateInstance(fkey, &instance, NULL), VESSA_OK);
    CHECK(instance != NULL);
    return instance;
}

static void WholeUse(void) {
    void* found = NULL;
    void* instance = NULL;
    CHECK_INT(VESSA_Init(), VESSA_OK);
    instance = Create("a");
    CHECK_INT(VESSA_QueryInterface(instance, TEST_MODULE_IKEY, &found, NULL), VESSA_OK);
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);
    VESSA_Uninit();
}

static void* WholeUseOnThread(void* unused) {
    WholeUse();
    return unused;
}

static void* InitOnThread(void* unused) {
    VESSA_Init();
    return unused;
}

static void* UninitOnThread(void* unused) {
    VESSA_Uninit();
    return unused;
}

static void* CreateOnThread(void* fkey) {
    Create(fkey);
    return NULL;
}

/* exit() from inside the operation, on this thread or on another one. */
static int ExitInside(const char* operation, int on_thread) {
    exit_in = operation;
    if (on_thread)
        Join(Start(WholeUseOnThread, NULL));
    else
        WholeUse();
    fprintf(stderr, "no operation \"%s\" was reached\n", operation);
    return 3;
}

/* Ends while another thread is held inside an operation. */
static void HoldThread(const char* operation) {
    stay_in = operation;
    if (strcmp(operation, "Init") == 0) {
        Start(InitOnThread, NULL);
    } else {
        CHECK_INT(VESSA_Init(), VESSA_OK);
        if (strcmp(operation, "Uninit") == 0)
            Start(UninitOnThread, NULL);
        else
            Start(CreateOnThread, "a");
    }
    Await(&inside);
}

/* Ways that only this system has, made of what is above. */
#include "ProcessEndWays.h"

static void UseAtExit(void) {
    void* const instance = Create("a");
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);
    CHECK_INT(VESSA_Init(), VESSA_OK);
    VESSA_Uninit();
    VESSA_Uninit();
    if (CheckResult() != 0) EndAtOnce(CHECK_FAILED);
    fputs("exit handler\n", stdout);
}

int main(int argc, char** argv) {
    const char* const way = argc > 1 ? argv[1] : "";
    const char* const operation = argc > 2 ? argv[2] : "";
    MakeEvent(&inside);
    MakeEvent(&released);
    if (strcmp(way, "inside") == 0) return ExitInside(operation, 0);
    if (strcmp(way, "inside_on_thread") == 0) return ExitInside(operation, 1);
    if (strcmp(way, "while_held") == 0) {
        HoldThread(operation);
        return CheckResult();
    }
    if (strcmp(way, "exit_handler") == 0) atexit(UseAtExit);
    if (strcmp(way, "used") == 0) {
        WholeUse();
        return CheckResult();
    }
    if (RunSystemsWay(way, operation)) return CheckResult();
    CHECK_INT(VESSA_Init(), VESSA_OK);
    if (strcmp(way, "with_instance") == 0) Create("a");
    if (strcmp(way, "exit_handler_after") == 0) atexit(UseAtExit);
    return CheckResult();
}
