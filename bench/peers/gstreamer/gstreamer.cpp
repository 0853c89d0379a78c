// GStreamer: an element by the name of its factory. The elements do nothing.
#include <gst/gst.h>

#include <cstdlib>
#include <filesystem>

#include "common/CreateRows.h"
#include "common/LoadRow.h"
#include "common/LogRow.h"
#include "common/MemoryRow.h"

namespace bench {
namespace {

// Without the plug-ins that the system has, and without a cache of them.
void StartGStreamer() {
    static const bool started = [] {
        for (const char* name : {"GST_PLUGIN_SYSTEM_PATH", "GST_PLUGIN_PATH"}) setenv(name, "", 1);
        setenv("GST_REGISTRY", "/dev/null", 1);
        setenv("GST_REGISTRY_DISABLE", "yes", 1);
        setenv("GST_DEBUG", "0", 1);
        gst_init(nullptr, nullptr);
        return true;
    }();
    static_cast<void>(started);
}

void InitClass(void* element_class, void*) {
    gst_element_class_set_static_metadata(static_cast<GstElementClass*>(element_class), "Benchmark",
                                          "Generic", "Does nothing", "bench");
}

// Factories stay for the life of a process: only the missing ones are made.
void RegisterElements(size_t keys) {
    static size_t registered = 0;
    static const GType type = [] {
        GTypeQuery base;
        g_type_query(GST_TYPE_ELEMENT, &base);
        GTypeInfo info{};
        info.class_size = static_cast<guint16>(base.class_size);
        info.class_init = InitClass;
        info.instance_size = static_cast<guint16>(base.instance_size);
        return g_type_register_static(GST_TYPE_ELEMENT, "BenchElement", &info, GTypeFlags());
    }();
    for (; registered < keys; ++registered)
        gst_element_register(nullptr, Key(registered).c_str(), GST_RANK_NONE, type);
}

class CreateHost {
  public:
    explicit CreateHost(size_t keys) : keys_(Keys(keys)) {
        StartGStreamer();
        RegisterElements(keys);
    }
    // A reference of the application's own in place of the floating one.
    void* Create(size_t key) {
        GstElement* const element = gst_element_factory_make(keys_[key].c_str(), nullptr);
        return element != nullptr ? gst_object_ref_sink(element) : nullptr;
    }
    void Destroy(size_t, void* instance) { gst_object_unref(instance); }

  private:
    std::vector<std::string> keys_;
};

class LoadHost {
  public:
    explicit LoadHost(const std::vector<std::string>& files) : files_(files) {
        StartGStreamer();
        for (const std::string& file : files)
            names_.push_back(std::filesystem::path(file).stem().string());
    }
    bool FirstUse(size_t index) {
        return gst_plugin_load_file(files_[index].c_str(), nullptr) != nullptr &&
               gst_element_factory_make(names_[index].c_str(), nullptr) != nullptr;
    }
    static std::string Module() { return BENCH_PEER_MODULE; }
    static const char* Symbol() { return "gst_plugin_desc"; }

  private:
    std::vector<std::string> files_;
    std::vector<std::string> names_;
};

}  // namespace

void RegisterRows() {
    CreateLimits limits;
    // A million elements would fill a small machine's memory.
    limits.live = {1000, 100000};
    CreateRows<CreateHost>::Register("gstreamer", limits);
    RegisterLoad<LoadHost>("gstreamer");
    RegisterMemory<CreateHost>("gstreamer");
    RegisterSuppressedRecord("gstreamer", StartGStreamer, [](void* address, int number) {
        GST_CAT_DEBUG(GST_CAT_DEFAULT, "benchmark record, instance %p, plugin error %d", address,
                      number);
    });
}

}  // namespace bench
