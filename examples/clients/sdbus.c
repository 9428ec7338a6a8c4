/* Reads, writes and follows one text property with sd-bus (libsystemd).
 * Usage: sdbus read|write|follow OBJECT INTERFACE PROPERTY [TEXT]
 * Build: cc sdbus.c -o sdbus $(pkg-config --cflags --libs libsystemd) */

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>

static const char service[] = "com.brenvok.korvaneinfod";

struct property {
    sd_bus* bus;
    const char* object;
    const char* interface;
    const char* name;
};

/* Prints the property. Returns a negative error number on failure. */
static int show(const struct property* property) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    char* text = NULL;
    const int result = sd_bus_get_property_string(property->bus, service, property->object, property->interface,
                                                  property->name, &error, &text);
    if (result < 0) {
        fprintf(stderr, "%s\n", error.message);
    } else {
        puts(text);
        fflush(stdout);
    }
    free(text);
    sd_bus_error_free(&error);
    return result;
}

static int set_text(const struct property* property, const char* text) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int result = sd_bus_set_property(property->bus, service, property->object, property->interface,
                                           property->name, &error, "s", text);
    if (result < 0)
        fprintf(stderr, "%s\n", error.message);
    sd_bus_error_free(&error);
    return result;
}

static int note_change(sd_bus_message* message, void* changed, sd_bus_error* error) {
    (void)message;
    (void)error;
    *(bool*)changed = true;
    return 0;
}

/* Prints the property now, after each change on its object, and whenever the daemon has started anew. */
static int follow(const struct property* property) {
    static const char restarted[] = "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
                                    "arg0='com.brenvok.korvaneinfod'";
    bool changed = true;
    int result = sd_bus_match_signal(property->bus, NULL, service, property->object, "org.freedesktop.DBus.Properties",
                                     "PropertiesChanged", note_change, &changed);
    if (result >= 0)
        result = sd_bus_add_match(property->bus, NULL, restarted, note_change, &changed);
    while (result >= 0) {
        if (changed) { /* the signal does not carry the new value */
            changed = false;
            show(property);
        }
        result = sd_bus_process(property->bus, NULL);
        if (result == 0)
            result = sd_bus_wait(property->bus, UINT64_MAX);
    }
    return result;
}

int main(int argc, char* argv[]) {
    if (argc < 5)
        return 2;
    struct property property = {NULL, argv[2], argv[3], argv[4]};
    int result = sd_bus_open_system(&property.bus);
    if (result >= 0) {
        if (strcmp(argv[1], "read") == 0)
            result = show(&property);
        else if (strcmp(argv[1], "write") == 0 && argc == 6)
            result = set_text(&property, argv[5]);
        else if (strcmp(argv[1], "follow") == 0)
            result = follow(&property);
    }
    sd_bus_unref(property.bus);
    return result < 0;
}
