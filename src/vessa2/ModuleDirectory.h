// The folder that holds the library's own file, normalised, without a "/" at the end. Empty
// when it cannot be found.
#pragma once

#include <string>

std::string GetModuleDirectory();
