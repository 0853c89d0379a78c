// A library that is everything that the delivered ones must not be.
#include <winsock2.h>

#include <mutex>
#include <thread>

#include "skrib.h"

thread_local int faulty_local = 0;

extern "C" __declspec(dllexport) int faulty_first() {
    static std::mutex mutex;
    const std::lock_guard<std::mutex> held(mutex);
    std::thread([] { ++faulty_local; }).join();
    return static_cast<int>(GetEnvironmentVariableA("FAULTY", nullptr, 0)) + faulty_local;
}

extern "C" __declspec(dllexport) int faulty_more() {
    SKRIB_ReleaseLogger(SKRIB_GetLogger(nullptr));
    return SKRIB_SetSink(nullptr, nullptr) + WSAGetLastError();
}
