#include "host/arguments.h"

namespace host {

std::vector<std::string> Arguments(int argc, char** argv) {
    return {argv + (argc > 0 ? 1 : 0), argv + argc};
}

}  // namespace host
