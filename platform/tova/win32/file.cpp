#include <new>

#include "common.h"
#include "win32/Wide.h"

int TOVA_AccessFile(const char* path, int mode) {
    if (path == nullptr || mode != 0) return tova::Fail(ERROR_INVALID_PARAMETER);
    try {
        std::wstring verbatim;
        if (!win32::VerbatimPath(path, verbatim)) return tova::FailWithLastError();
        const DWORD attributes = GetFileAttributesW(verbatim.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) return tova::FailWithLastError();
        if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return 0;
        // Those were the link's own; the opening follows it.
        const tova::Handle file(CreateFileW(verbatim.c_str(), FILE_READ_ATTRIBUTES, tova::kShareAll,
                                            nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                            nullptr));
        return file.IsValid() ? 0 : tova::FailWithLastError();
    } catch (const std::bad_alloc&) {
        return tova::Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
}
