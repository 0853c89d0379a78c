#include <vessa/vessa.h>

struct greet { void (*say)(const char* name); };

int main(void) {
    void *hello = 0, *iface = 0;
    if (VESSA_Init() != VESSA_OK) return 1;
    int result = VESSA_CreateInstance("hello", &hello, 0);
    if (result == VESSA_OK) result = VESSA_QueryInterface(hello, "greet", &iface, 0);
    if (result == VESSA_OK) ((struct greet*)iface)->say("world");
    if (hello != 0) VESSA_DestroyInstance(hello, 0);
    VESSA_Uninit();
    return result == VESSA_OK ? 0 : 1; /* the log on standard error says why */
}
