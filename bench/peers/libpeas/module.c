/* One module behind every plug-in description. */
#include <libpeas/peas.h>

typedef struct {
    GObject parent;
    GObject* object;
} BenchCodec;

typedef struct {
    GObjectClass parent;
} BenchCodecClass;

enum { kObject = 1 };

static void SetProperty(GObject* self, guint id, const GValue* value, GParamSpec* parameter) {
    (void)parameter;
    if (id == kObject) ((BenchCodec*)(void*)self)->object = g_value_get_object(value);
}

static void GetProperty(GObject* self, guint id, GValue* value, GParamSpec* parameter) {
    (void)parameter;
    if (id == kObject) g_value_set_object(value, ((BenchCodec*)(void*)self)->object);
}

static void InitClass(gpointer class_data, gpointer unused) {
    GObjectClass* const object_class = class_data;
    (void)unused;
    object_class->set_property = SetProperty;
    object_class->get_property = GetProperty;
    g_object_class_override_property(object_class, kObject, "object");
}

static GType CodecType(void) {
    GType type = g_type_from_name("BenchCodec");
    if (type == 0) {
        const GInterfaceInfo activatable = {NULL, NULL, NULL};
        GTypeInfo info = {0};
        info.class_size = sizeof(BenchCodecClass);
        info.instance_size = sizeof(BenchCodec);
        info.class_init = InitClass;
        type = g_type_register_static(G_TYPE_OBJECT, "BenchCodec", &info, 0);
        g_type_add_interface_static(type, PEAS_TYPE_ACTIVATABLE, &activatable);
    }
    return type;
}

__attribute__((visibility("default"))) void peas_register_types(PeasObjectModule* module);
void peas_register_types(PeasObjectModule* module) {
    peas_object_module_register_extension_type(module, PEAS_TYPE_ACTIVATABLE, CodecType());
}
