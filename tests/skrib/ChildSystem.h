// What the child asks of the system. Each system has a folder with a source of this name.
#pragma once

#include <string>
#include <vector>

namespace skrib_test {

// The arguments of main in UTF-8, without the program's own name.
std::vector<std::string> Arguments(int count, char** arguments);

// The child must not outlive its test if it hangs.
void LimitLife();

// Ends the process at once: no exit handlers, nothing is written out.
[[noreturn]] void Die();

// Moves the monotonic clock that the library sees, nothing else.
void MoveClock(long seconds);

}  // namespace skrib_test
