// The command line in UTF-8, whatever the system gives main.
#pragma once

#include <string>
#include <vector>

namespace host {

// What follows the program's name.
std::vector<std::string> Arguments(int argc, char** argv);

}  // namespace host
