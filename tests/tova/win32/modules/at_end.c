/* Calls what it is given when it leaves the process: by an unload, or at the end of the process,
 * when the other threads are gone. */
#include <windows.h>

#include "../../modules/module.h"

typedef void (*at_end_t)(int process_ends);

static at_end_t call;

MODULE_EXPORT void module_at_end(at_end_t function);

void module_at_end(at_end_t function) {
    call = function;
}

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved) {
    (void)module;
    if (reason == DLL_PROCESS_DETACH && call != 0) call(reserved != 0);
    return TRUE;
}
