/* Loads the library given, takes a logger, unloads the library and uses the logger. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

typedef void* (*GetLogger)(const char*);
typedef int (*GetThreshold)(void*);

static void* Symbol(void* library, const char* name, void* function) {
    void* symbol = dlsym(library, name);
    memcpy(function, &symbol, sizeof symbol);
    return symbol;
}

int main(int count, char** arguments) {
    void* library = count > 1 ? dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    GetLogger get;
    GetThreshold threshold;
    void* logger;
    if (library == NULL || Symbol(library, "SKRIB_GetLogger", &get) == NULL ||
        Symbol(library, "SKRIB_GetThreshold", &threshold) == NULL) {
        return 2;
    }
    logger = get("kept");
    dlclose(library);
    if (dlopen(arguments[1], RTLD_NOW | RTLD_NOLOAD) == NULL) return 3;
    printf("%d %d\n", threshold(logger), get("kept") == logger);
    return 0;
}
