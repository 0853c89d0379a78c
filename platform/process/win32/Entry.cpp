// The library's entry point, in its own source so that programs that contain the library's
// objects do without it.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    // Refused for a library with storage for each thread, which is no matter.
    if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(module);
    return TRUE;
}
