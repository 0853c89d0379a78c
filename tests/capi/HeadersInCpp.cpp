// As HeadersInC.c, in C++: the same names with C linkage.
#include <type_traits>

#include "vessa/tarnet.h"
#include "vessa/vessa.h"

static_assert(__cplusplus == 201703L, "not compiled as C++17");
static_assert(std::is_same_v<decltype(&VESSA_Init), int (*)()>);
static_assert(std::is_same_v<decltype(&VESSA_Uninit), void (*)()>);
static_assert(std::is_same_v<decltype(&VESSA_CreateInstance), int (*)(const char*, void**, int*)>);
static_assert(std::is_same_v<decltype(&VESSA_DestroyInstance), int (*)(void*, int*)>);
static_assert(
    std::is_same_v<decltype(&VESSA_QueryInterface), int (*)(void*, const char*, void**, int*)>);
static_assert(std::is_same_v<decltype(&VESSA_QueryConfigAttribute),
                             int (*)(const char*, const char*, char*, unsigned int*)>);
static_assert(std::is_same_v<decltype(&VESSA_QueryAllFkeys), int (*)(char***, unsigned int*)>);
static_assert(std::is_same_v<decltype(&VESSA_ReleaseAllFkeys), int (*)(char**, unsigned int)>);
static_assert(sizeof(vessa_result) == 4);

extern "C" int HeadersInC_Results(void);
extern "C" int HeadersInC_Handle(void);
extern "C" int HeadersInCpp_ResultsInBoth(void);

// How many results there are, if both languages agree; else 0.
extern "C" int HeadersInCpp_ResultsInBoth(void) {
    int results = 0;
#define COUNT(name, number, meaning) results += name == (number);
    VESSA_RESULT_LIST(COUNT)
#undef COUNT
    return HeadersInC_Results() == results && HeadersInC_Handle() ? results : 0;
}
