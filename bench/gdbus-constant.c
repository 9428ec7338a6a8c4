/* A service on plain GDBus that publishes constants: what the bus library alone costs.
 *
 * Usage: gdbus-constant ENTRIES. It publishes the items of the benchmark's configuration, answers every Get with the
 * same text, and a Set with success and the daemon's signal but without storing anything. */
#include "items.h"

#include <gio/gio.h>
#include <stdlib.h>

static GMainLoop* loop;
static GDBusInterfaceInfo* interface;

static GVariant* get_property(GDBusConnection* connection, const char* sender, const char* object_path,
                              const char* interface_name, const char* name, GError** error, void* data) {
    (void)connection, (void)sender, (void)object_path, (void)interface_name, (void)name, (void)error, (void)data;
    return g_variant_new_string(BENCH_VALUE);
}

static gboolean set_property(GDBusConnection* connection, const char* sender, const char* object_path,
                             const char* interface_name, const char* name, GVariant* value, GError** error,
                             void* data) {
    (void)sender, (void)interface_name, (void)name, (void)value, (void)data;
    return g_dbus_connection_emit_signal(connection, NULL, object_path, "org.freedesktop.DBus.Properties",
                                         "PropertiesChanged", NULL, error);
}

static void on_bus_acquired(GDBusConnection* connection, const char* name, void* data) {
    (void)name, (void)data;
    static const GDBusInterfaceVTable vtable = {.get_property = get_property, .set_property = set_property};
    GError* error = NULL;
    if (g_dbus_connection_register_object(connection, BENCH_PATH, interface, &vtable, NULL, NULL, &error) == 0)
        g_error("register_object: %s", error->message);
}

static void on_name_lost(GDBusConnection* connection, const char* name, void* data) {
    (void)connection, (void)name, (void)data;
    g_main_loop_quit(loop);
}

int main(int argc, char* argv[]) {
    const int entries = argc == 2 ? atoi(argv[1]) : 0;
    if (entries < 1)
        g_error("usage: %s ENTRIES", argv[0]);

    GString* const xml = g_string_new("<node><interface name='" BENCH_INTERFACE "'>");
    for (int i = 0; i < entries; ++i)
        g_string_append_printf(xml, "<property name='" BENCH_ITEM "' type='s' access='readwrite'/>", i);
    g_string_append(xml, "</interface></node>");
    GError* error = NULL;
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(xml->str, &error);
    if (node == NULL)
        g_error("introspection data: %s", error->message);
    g_string_free(xml, TRUE);
    interface = node->interfaces[0];

    loop = g_main_loop_new(NULL, FALSE);
    g_bus_own_name(G_BUS_TYPE_SYSTEM, BENCH_NAME, G_BUS_NAME_OWNER_FLAGS_NONE, on_bus_acquired, NULL, on_name_lost,
                   NULL, NULL);
    g_main_loop_run(loop);
    return 0;
}
