/* A plug-in with one element, which bears the name of the module's file: many copies of the file
 * can be loaded in one process. */
#include <gst/gst.h>
#include <string.h>

static void InitClass(gpointer element_class, gpointer unused) {
    (void)unused;
    gst_element_class_set_static_metadata(element_class, "Benchmark", "Generic", "Does nothing",
                                          "bench");
}

static gboolean Init(GstPlugin* plugin) {
    gchar* const name = g_path_get_basename(gst_plugin_get_filename(plugin));
    GTypeQuery base;
    GTypeInfo info = {0};
    gboolean registered;
    *strchr(name, '.') = '\0';
    g_type_query(GST_TYPE_ELEMENT, &base);
    info.class_size = (guint16)base.class_size;
    info.class_init = InitClass;
    info.instance_size = (guint16)base.instance_size;
    registered = gst_element_register(plugin, name, GST_RANK_NONE,
                                      g_type_register_static(GST_TYPE_ELEMENT, name, &info, 0));
    g_free(name);
    return registered;
}

/* Where the name of the file says nothing, this symbol is looked for. */
__attribute__((visibility("default"))) GstPluginDesc gst_plugin_desc = {
    GST_VERSION_MAJOR, GST_VERSION_MINOR, "bench", "benchmark", Init, "1.0", "LGPL",
    "bench",           "bench",           "bench", NULL,        {0}};
