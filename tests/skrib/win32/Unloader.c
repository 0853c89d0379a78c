/* Loads the library given, takes a logger, unloads the library and uses the logger. */
#include <stdio.h>
#include <string.h>
#include <windows.h>

typedef void* (*GetLogger)(const char*);
typedef int (*GetThreshold)(void*);

static FARPROC Symbol(HMODULE library, const char* name, void* function) {
    FARPROC symbol = GetProcAddress(library, name);
    memcpy(function, &symbol, sizeof symbol);
    return symbol;
}

int main(int count, char** arguments) {
    HMODULE library = count > 1 ? LoadLibraryA(arguments[1]) : NULL;
    GetLogger get;
    GetThreshold threshold;
    void* logger;
    if (library == NULL || Symbol(library, "SKRIB_GetLogger", &get) == NULL ||
        Symbol(library, "SKRIB_GetThreshold", &threshold) == NULL) {
        return 2;
    }
    logger = get("kept");
    FreeLibrary(library);
    FreeLibrary(library);
    if (GetModuleHandleA("skrib.dll") == NULL) return 3;
    printf("%d %d\n", threshold(logger), get("kept") == logger);
    return 0;
}
