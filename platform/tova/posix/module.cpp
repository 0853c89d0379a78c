#include <dlfcn.h>
#include <link.h>

#include <cstring>
#include <new>
#include <string>

#include "common.h"
#include "log.h"
#include "module_file.h"

namespace {

const char* LoaderText() {
    const char* const text = dlerror();
    return text == nullptr ? "the loader gives no reason" : text;
}

void* LoadExamined(const char* path) {
    // The loader looks a name without "/" up in its own folders.
    std::string in_folder;
    if (std::strchr(path, '/') == nullptr) {
        in_folder = std::string("./") + path;
        path = in_folder.c_str();
    }
    errno = 0;
    void* const dso = dlopen(path, RTLD_NOW | RTLD_LOCAL);  // calls out
    if (dso != nullptr) return dso;
    const int error = errno != 0 ? errno : ENOEXEC;
    const char* const reason = LoaderText();
    tova::LogError(__FILE__, TOVA_FUNCTION_SIGNATURE, __LINE__, [path, reason] {
        return std::string("module not loaded, path ") + path + ", reason: " + reason;
    });
    errno = error;
    return nullptr;
}

}  // namespace

void* TOVA_LoadDSo(const char* path) {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const tova::CancelGuard guard;
    const tova::ModuleRefusal refusal = tova::ExamineModuleFile(path);
    if (refusal.error != 0) {
        tova::LogError(__FILE__, TOVA_FUNCTION_SIGNATURE, __LINE__, [path, &refusal] {
            return std::string("module refused, path ") + path + ", reason: " + Describe(refusal);
        });
        errno = refusal.error;
        return nullptr;
    }
    try {
        return LoadExamined(path);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

void* TOVA_GetDsoSym(void* dso, const char* name) {
    if (dso == nullptr || name == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    void* const symbol = dlsym(dso, name);
    // The look-up goes on into the modules that this one depends on.
    link_map* own = nullptr;
    link_map* definer = nullptr;
    Dl_info info{};
    const bool found =
        symbol != nullptr && dlinfo(dso, RTLD_DI_LINKMAP, &own) == 0 &&
        dladdr1(symbol, &info, reinterpret_cast<void**>(&definer), RTLD_DL_LINKMAP) != 0 &&
        definer == own;
    if (found) return symbol;
    errno = ENOENT;
    return nullptr;
}

int TOVA_UnloadDSo(void* dso) {
    if (dso == nullptr) return tova::Fail(EINVAL);
    const tova::CancelGuard guard;
    errno = 0;
    if (dlclose(dso) == 0) return 0;  // calls out
    const int error = errno != 0 ? errno : EINVAL;
    const char* const reason = LoaderText();
    tova::LogError(__FILE__, TOVA_FUNCTION_SIGNATURE, __LINE__,
                   [reason] { return std::string("module not unloaded, reason: ") + reason; });
    return tova::Fail(error);
}
