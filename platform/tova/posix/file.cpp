#include <unistd.h>

#include "common.h"

int TOVA_AccessFile(const char* path, int mode) {
    if (path == nullptr || mode != 0) return tova::Fail(EINVAL);
    return access(path, F_OK) == 0 ? 0 : errno;
}
