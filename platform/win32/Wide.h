// Between the UTF-8 of every interface here and the UTF-16 of Windows. Compiled into each library
// that calls the system with paths.
#pragma once

#include <string>

namespace win32 {

// Nothing is lost or replaced: what is not well formed fails, with the last error set.
bool Widen(const char* text, std::wstring& wide);
bool Widen(const std::string& text, std::wstring& wide);
bool Narrow(const wchar_t* wide, std::string& text);

/*
 * The absolute path that the system takes without looking at it again: "\\?\" before it, back
 * slashes, no "." and "..". So there is no limit of 260, and a name with a blank or a full stop at
 * its end is that name. False: the path is empty, not UTF-8 or a device, with the last error set.
 */
bool VerbatimPath(const char* path, std::wstring& verbatim);

// The same without the prefix where the system reads it as the same path; for calls that keep the
// path as a name for others to read.
std::wstring WithoutPrefix(const std::wstring& verbatim);

// The file of a loaded module, absolute and whole; null: the program. Empty: failure.
std::wstring ModuleFileOf(void* module);

// True once the process ends and every thread but the calling one is gone, whatever they held.
bool ProcessIsEnding();

// The system's text for an error, in UTF-8, without a line break at its end. Empty: there is none.
std::string ErrorText(unsigned long error);

}  // namespace win32
