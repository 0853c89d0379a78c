// A child that does as its first argument says.
//
//  say <out> <err> <status>   writes both texts and exits
//  repeat <text> <times>      writes that many lines
//  show ...                   writes its further arguments, the variable ADDED, whether there is a
//                             REMOVED, the working folder and how much it can read
//  crash                      ends as a program with a mistake does
//  hang                       never ends by itself
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>

namespace {

void Show(int count, char** arguments) {
    for (int i = 2; i < count; ++i) std::printf("argument %s\n", arguments[i]);
    const char* const added = std::getenv("ADDED");
    std::printf("ADDED %s\n", added == nullptr ? "none" : added);
    std::printf("REMOVED %s\n", std::getenv("REMOVED") == nullptr ? "none" : "left");
    std::printf("folder %s\n", std::filesystem::current_path().generic_u8string().c_str());
    int read = 0;
    while (std::getchar() != EOF) ++read;
    std::printf("read %d\n", read);
}

void Hang() {
    std::puts("hanging");
    std::fflush(stdout);
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) never.wait(lock);
}

}  // namespace

int main(int count, char** arguments) {
    const std::string what = count > 1 ? arguments[1] : "";
    if (what == "say" && count == 5) {
        std::fputs(arguments[2], stdout);
        std::fputs(arguments[3], stderr);
        return std::atoi(arguments[4]);
    }
    if (what == "repeat" && count == 4) {
        for (int i = 0; i < std::atoi(arguments[3]); ++i) std::puts(arguments[2]);
    } else if (what == "show") {
        Show(count, arguments);
    } else if (what == "crash") {
        volatile int* volatile nowhere = nullptr;
        *nowhere = 1;
    } else if (what == "hang") {
        Hang();
    } else {
        return 2;
    }
    return 0;
}
