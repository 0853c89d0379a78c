// GObject: an object by the name of its type. Types are made by the program: the modules of a
// GTypeModule would not change what a name costs.
#include <glib-object.h>

#include "common/CreateRows.h"
#include "common/LogRow.h"
#include "common/MemoryRow.h"

namespace bench {
namespace {

struct Codec {
    GObject parent;
    int value;
};
struct CodecClass {
    GObjectClass parent;
};

void InitCodec(GTypeInstance* instance, void*) {
    reinterpret_cast<Codec*>(instance)->value = 42;
}

// A type's name has no dots.
std::string TypeName(size_t index) {
    std::string name = Key(index);
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

// Types stay for the life of a process: only the missing ones are made.
void RegisterTypes(size_t keys) {
    static size_t registered = 0;
    GTypeInfo info{};
    info.class_size = sizeof(CodecClass);
    info.instance_size = sizeof(Codec);
    info.instance_init = InitCodec;
    for (; registered < keys; ++registered)
        g_type_register_static(G_TYPE_OBJECT, TypeName(registered).c_str(), &info, GTypeFlags());
}

class CreateHost {
  public:
    explicit CreateHost(size_t keys) {
        RegisterTypes(keys);
        for (size_t i = 0; i < keys; ++i) keys_.push_back(TypeName(i));
    }
    void* Create(size_t key) { return g_object_new(g_type_from_name(keys_[key].c_str()), nullptr); }
    void Destroy(size_t, void* instance) { g_object_unref(instance); }

  private:
    std::vector<std::string> keys_;
};

}  // namespace

void RegisterRows() {
    CreateRows<CreateHost>::Register("gobject", CreateLimits());
    RegisterMemory<CreateHost>("gobject");
    RegisterSuppressedRecord(
        "gobject", [] {},
        [](void* address, int number) {
            g_debug("benchmark record, instance %p, plugin error %d", address, number);
        });
}

}  // namespace bench
