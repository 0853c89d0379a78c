// With the address sanitizer alone. What the XML parser has in its hands when an allocation fails
// inside it is lost by the parser: that is no leak of the library's. The library with the mark around
// its parser (../faults/ParserMark.cpp) tells when it runs; that nothing else is lost there is for
// the family of faults to count.
#include <sanitizer/lsan_interface.h>

extern "C" __attribute__((visibility("default"), used)) void Faults_Parser(int enters) {
    if (enters != 0)
        __lsan_disable();
    else
        __lsan_enable();
}
