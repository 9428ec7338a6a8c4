/* A service on sd-bus that publishes constants: what one would write by hand for a single board.
 *
 * Usage: sdbus-constant ENTRIES. It publishes the items of the benchmark's configuration, answers every Get with the
 * same text, and a Set with success and the daemon's signal but without storing anything. */
#include "items.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>

static int get_property(sd_bus* bus, const char* path, const char* interface, const char* property,
                        sd_bus_message* reply, void* data, sd_bus_error* error) {
    (void)bus, (void)path, (void)interface, (void)property, (void)data, (void)error;
    return sd_bus_message_append(reply, "s", BENCH_VALUE);
}

static int set_property(sd_bus* bus, const char* path, const char* interface, const char* property,
                        sd_bus_message* value, void* data, sd_bus_error* error) {
    (void)interface, (void)property, (void)data, (void)error;
    const char* text = NULL;
    const int result = sd_bus_message_read(value, "s", &text);
    if (result < 0)
        return result;
    return sd_bus_emit_signal(bus, path, "org.freedesktop.DBus.Properties", "PropertiesChanged", "");
}

static void check(int result, const char* what) {
    if (result >= 0)
        return;
    fprintf(stderr, "sdbus-constant: %s: %s\n", what, strerror(-result));
    exit(1);
}

static sd_bus_vtable* make_vtable(int entries) {
    sd_bus_vtable* const vtable = calloc((size_t)entries + 2, sizeof *vtable);
    if (vtable == NULL)
        check(-12, "vtable");
    vtable[0] = (sd_bus_vtable)SD_BUS_VTABLE_START(0);
    for (int i = 0; i < entries; ++i) {
        char* name = NULL;
        check(asprintf(&name, BENCH_ITEM, i), "item name");
        vtable[1 + i] = (sd_bus_vtable)SD_BUS_WRITABLE_PROPERTY(name, "s", get_property, set_property, 0, 0);
    }
    vtable[1 + entries] = (sd_bus_vtable)SD_BUS_VTABLE_END;
    return vtable;
}

int main(int argc, char* argv[]) {
    const int entries = argc == 2 ? atoi(argv[1]) : 0;
    if (entries < 1) {
        fprintf(stderr, "usage: %s ENTRIES\n", argv[0]);
        return 2;
    }
    sd_bus* bus = NULL;
    check(sd_bus_open_system(&bus), "system bus");
    check(sd_bus_add_object_vtable(bus, NULL, BENCH_PATH, BENCH_INTERFACE, make_vtable(entries), NULL), "object");
    check(sd_bus_request_name(bus, BENCH_NAME, 0), "bus name");
    for (;;) {
        const int processed = sd_bus_process(bus, NULL);
        check(processed, "process");
        if (processed == 0)
            check(sd_bus_wait(bus, UINT64_MAX), "wait");
    }
}
