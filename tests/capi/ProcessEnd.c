/* An application that ends without stopping the library, in the way that its arguments say. It
 * exports the hook of the test modules and so acts inside their operations. */
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Check.h"
#include "modules/TestInterface.h"
#include "vessa/vessa.h"

/* What the hook does in the operation of this name: ends the process, or reports that it is
 * inside and waits for the rest of the process's life. */
static const char* exit_in = "";
static const char* stay_in = "";
static sem_t inside;
static sem_t released;

static void Await(sem_t* semaphore) {
    while (sem_wait(semaphore) != 0) {
    }
}

int TestModule_Hook(const char* module, const char* operation, void* a, void* b, int* result) {
    (void)module;
    (void)a;
    (void)b;
    (void)result;
    if (strcmp(operation, exit_in) == 0) {
        exit_in = "";
        exit(CheckResult());
    }
    if (strcmp(operation, stay_in) == 0) {
        stay_in = "";
        sem_post(&inside);
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

static pthread_t Start(void* (*function)(void*), void* argument) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, function, argument) != 0) exit(3);
    return thread;
}

/* exit() from inside the operation, on this thread or on another one. */
static int ExitInside(const char* operation, int on_thread) {
    exit_in = operation;
    if (on_thread)
        pthread_join(Start(WholeUseOnThread, NULL), NULL);
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

/* The forked child ends by exit; its exit status tells that its exit handlers came through. */
static void ForkAndExit(void) {
    int status = 0;
    const pid_t child = fork();
    if (child == 0) exit(7);
    CHECK(child > 0);
    CHECK(waitpid(child, &status, 0) == child);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 7);
}

static int Fork(void) {
    CHECK_INT(VESSA_Init(), VESSA_OK);
    void* const instance = Create("a");
    ForkAndExit();
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);
    VESSA_Uninit();
    ForkAndExit();
    return CheckResult();
}

static int ForkWhileHeld(const char* operation) {
    HoldThread(operation);
    ForkAndExit();
    return CheckResult();
}

static void UseAtExit(void) {
    void* const instance = Create("a");
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);
    CHECK_INT(VESSA_Init(), VESSA_OK);
    VESSA_Uninit();
    VESSA_Uninit();
    if (CheckResult() != 0) _exit(CHECK_FAILED);
    fputs("exit handler\n", stdout);
}

int main(int argc, char** argv) {
    const char* const way = argc > 1 ? argv[1] : "";
    const char* const operation = argc > 2 ? argv[2] : "";
    sem_init(&inside, 0, 0);
    sem_init(&released, 0, 0);
    if (strcmp(way, "inside") == 0) return ExitInside(operation, 0);
    if (strcmp(way, "inside_on_thread") == 0) return ExitInside(operation, 1);
    if (strcmp(way, "fork") == 0) return Fork();
    if (strcmp(way, "fork_while_held") == 0) return ForkWhileHeld(operation);
    if (strcmp(way, "while_held") == 0) {
        HoldThread(operation);
        return CheckResult();
    }
    if (strcmp(way, "exit_handler") == 0) atexit(UseAtExit);
    if (strcmp(way, "used") == 0) {
        WholeUse();
        return CheckResult();
    }
    CHECK_INT(VESSA_Init(), VESSA_OK);
    if (strcmp(way, "with_instance") == 0) Create("a");
    if (strcmp(way, "exit_handler_after") == 0) atexit(UseAtExit);
    return CheckResult();
}
