#include "host/arguments.h"

#include <windows.h>

#include <shellapi.h>

#include <filesystem>

namespace host {

// main's own arguments have lost the letters that the code page does not have.
std::vector<std::string> Arguments(int, char**) {
    std::vector<std::string> arguments;
    int count = 0;
    LPWSTR* const words = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; i < count; ++i)
        arguments.push_back(std::filesystem::path(words[i]).u8string());
    LocalFree(words);
    return arguments;
}

}  // namespace host
