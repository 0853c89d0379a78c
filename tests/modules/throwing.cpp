// The part of the throwing modules that C cannot express.
#include <stdexcept>

extern "C" void TestModule_Throw(const char* operation);

void TestModule_Throw(const char* operation) {
    throw std::runtime_error(operation);
}
