#include "vessa2/ModuleDirectory.h"

#include "common/NormalizePath.h"
#include "process/Process.h"

std::string GetModuleDirectory() {
    return FolderOf(NormalizePath(process::ModuleFile()));
}
