// An application whose global objects use the library: one starts it before main, others were
// made before and after its first use and use it in their destructors.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vessa/vessa.h"

namespace {

void Require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "failed: %s\n", what);
    std::_Exit(1);
}

void UseEverything() {
    void* instance = nullptr;
    void* found = nullptr;
    char** fkeys = nullptr;
    unsigned int count = 0;
    unsigned int length = 0;
    Require(VESSA_Init() == VESSA_OK, "start");
    Require(VESSA_CreateInstance("a", &instance, nullptr) == VESSA_OK, "create");
    Require(VESSA_QueryInterface(instance, "iface", &found, nullptr) == VESSA_OK, "query");
    Require(VESSA_DestroyInstance(instance, nullptr) == VESSA_OK, "destroy");
    Require(VESSA_QueryConfigAttribute("a", "file", nullptr, &length) == VESSA_OK, "attribute");
    Require(VESSA_QueryAllFkeys(&fkeys, &count) == VESSA_OK, "fkeys");
    Require(VESSA_ReleaseAllFkeys(fkeys, count) == VESSA_OK, "release");
    VESSA_Uninit();
}

// Keeps the library started and an instance alive for its own lifetime.
class Session {
  public:
    explicit Session(const char* name) : name_(name) {}
    ~Session() {
        if (!open_) return;
        UseEverything();
        Require(VESSA_DestroyInstance(instance_, nullptr) == VESSA_OK, "destroy");
        VESSA_Uninit();
        std::printf("%s\n", name_);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Open() {
        Require(VESSA_Init() == VESSA_OK, "start");
        Require(VESSA_CreateInstance("a", &instance_, nullptr) == VESSA_OK, "create");
        open_ = true;
    }

  private:
    const char* name_;
    bool open_ = false;
    void* instance_ = nullptr;
};

Session before_main("made before main");

struct StartedBeforeMain {
    Session session{"started before main"};
    StartedBeforeMain() { session.Open(); }
};

bool wants_early_start() {
    return std::getenv("HOST_STARTS_EARLY") != nullptr;
}
StartedBeforeMain* const started_before_main =
    wants_early_start() ? [] {
        static StartedBeforeMain started;
        return &started;
    }()
                        : nullptr;

}  // namespace

int main() {
    before_main.Open();
    UseEverything();
    static Session after_use("made after the first use");
    after_use.Open();
    return 0;
}
