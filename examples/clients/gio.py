#!/usr/bin/python3
"""Reads, writes and follows one text property with Gio (package python3-gi).

Usage: gio.py read|write|follow OBJECT INTERFACE PROPERTY [TEXT]
"""

import sys

from gi.repository import Gio, GLib

SERVICE = "com.brenvok.korvaneinfod"
PROPERTIES = "org.freedesktop.DBus.Properties"


def get(bus, path, interface, name):
    """Returns a property as a Python value."""
    reply = bus.call_sync(SERVICE, path, PROPERTIES, "Get", GLib.Variant("(ss)", (interface, name)),
                          GLib.VariantType("(v)"), Gio.DBusCallFlags.NONE, -1, None)
    return reply.unpack()[0]


def set_text(bus, path, interface, name, text):
    """Sets a property of type "s"."""
    value = GLib.Variant("s", text)
    bus.call_sync(SERVICE, path, PROPERTIES, "Set", GLib.Variant("(ssv)", (interface, name, value)),
                  None, Gio.DBusCallFlags.NONE, -1, None)


def follow(bus, path, interface, name):
    """Prints a property now, after each change on its object, and whenever the daemon has started anew."""
    def show(*_):
        print(get(bus, path, interface, name), flush=True)

    # Not by a proxy: it takes new values from the signal, and this signal has none.
    bus.signal_subscribe(SERVICE, PROPERTIES, "PropertiesChanged", path, None, Gio.DBusSignalFlags.NONE, show)
    Gio.bus_watch_name_on_connection(bus, SERVICE, Gio.BusNameWatcherFlags.AUTO_START, show, None)
    GLib.MainLoop().run()


def main(command, path, interface, name, *text):
    """Runs one command of the command line."""
    bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
    if command == "read":
        print(get(bus, path, interface, name))
    elif command == "write":
        set_text(bus, path, interface, name, *text)
    elif command == "follow":
        follow(bus, path, interface, name)


main(*sys.argv[1:])
