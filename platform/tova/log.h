#ifndef TOVA_LOG_H
#define TOVA_LOG_H

#include <new>

#include "skrib.h"

#if defined(_MSC_VER) && !defined(__clang__)
#  define TOVA_FUNCTION_SIGNATURE __FUNCSIG__
#else
#  define TOVA_FUNCTION_SIGNATURE __PRETTY_FUNCTION__
#endif

namespace tova {

/*
 * Writes one record of level error to the logger "tova". The text comes from make_text(), which
 * is called only if the threshold lets the record through; for want of memory the record is
 * dropped.
 *
 * The logger is taken and given back for each record: these are rare, and so the library keeps
 * nothing that somebody would have to release at its unload or at the end of the process.
 * Changes the last error.
 */
template <typename MakeText>
void LogError(const char* file, const char* function, int line, MakeText make_text) {
    void* const logger = SKRIB_GetLogger("tova");
    if (logger == nullptr) return;
    if (SKRIB_GetThreshold(logger) <= SKRIB_LEVEL_ERROR) {
        try {
            SKRIB_Write(logger, SKRIB_LEVEL_ERROR, make_text().c_str(), file, function, line);
        } catch (const std::bad_alloc&) {
        }
    }
    SKRIB_ReleaseLogger(logger);
}

}  // namespace tova

#endif
