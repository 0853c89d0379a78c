/* Each key is the name of one exported function, as that is what this peer looks up: names for one
 * and the same function, labels before a jump to it, made by names.sh. */
#include <stdlib.h>

struct instance {
    const void* operations;
    int value;
};

static const int operations = 0;

__attribute__((visibility("default"))) void* BenchCreate(void) {
    struct instance* const made = malloc(sizeof *made);
    if (made == NULL) return NULL;
    made->operations = &operations;
    made->value = 42;
    return made;
}
