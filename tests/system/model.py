"""A model of the daemon: what it prints, logs, answers, writes and signals, for a configuration and requests.

It is written apart from the daemon, in another language, and shares no code with it, so that a mistake has to be made
twice to go unnoticed. Only the libraries' own behaviour is asked of the libraries: which introspection data and names
GDBus accepts, how GVariant prints a value, how the C library reads a number.

Text is held as str with surrogateescape, since nothing in a configuration or a value file need be UTF-8.
"""

import ctypes
import errno
import os
import signal

from gi.repository import Gio, GLib

ROOT = "/com/brenvok/Korvaneinfo1"
INTERFACE = "com.brenvok.Info1"
BUS_NAME = "com.brenvok.korvaneinfod"
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
NO_REPLY = "org.freedesktop.DBus.Error.NoReply"
LOGIC_ERROR = -signal.SIGABRT  # an exception that nothing catches
SLOT_ERROR = -signal.SIGTRAP  # a standard exception in a handler, which the bus binding answers in this way
SKIPPED = b"\t\n\v\f\r "
DIRECTORY = object()  # the content of a folder, among the files
DEEPEST = 1000  # the JSON library reads no deeper nesting
BROKEN = object()  # a document that is no JSON
C_LIBRARY = ctypes.CDLL(None, use_errno=True)


class Ended(Exception):
    """The daemon's process has ended, with this status."""


class Refused(Exception):
    """A request was answered with an error: its name, and its text where that is the daemon's own."""


def to_bytes(text):
    return text.encode("utf-8", "surrogateescape")


def to_text(data):
    return data.decode("utf-8", "surrogateescape")


def c_string(text):
    """Returns what a reader of C strings sees of a text."""
    return text.split("\0", 1)[0]


# --- the C library's numbers

def read_number(function, result, text, *base):
    """Reads the number at the start of a text; ValueError if there is none, OverflowError if it is out of range."""
    data = to_bytes(c_string(text))
    buffer = ctypes.create_string_buffer(data)
    end = ctypes.c_void_p()
    function.restype = result
    ctypes.set_errno(0)
    number = function(buffer, ctypes.byref(end), *base)
    if end.value == ctypes.addressof(buffer):
        raise ValueError(text)
    if ctypes.get_errno() == errno.ERANGE:
        raise OverflowError(text)
    return number


def read_integer(text, base):
    return read_number(C_LIBRARY.strtoll, ctypes.c_longlong, text, base)


def read_int32(text):
    number = read_integer(text, 10)
    if not -2**31 <= number < 2**31:
        raise OverflowError(text)
    return number


def read_double(text):
    return read_number(C_LIBRARY.strtod, ctypes.c_double, text)


# --- the JSON library's conversions and its styled form

def as_text(value):
    if isinstance(value, (dict, list)):
        raise Ended(LOGIC_ERROR)
    if value is None:
        return ""
    return value if isinstance(value, str) else styled_scalar(value)


def as_unsigned(value):
    if value is None:
        return 0
    if isinstance(value, (str, dict, list)) or not 0 <= value < 2**32:
        raise Ended(LOGIC_ERROR)
    return int(value)


def as_flag(value):
    if isinstance(value, (str, dict, list)):
        raise Ended(LOGIC_ERROR)
    return bool(value)


def member(value, key):
    if value is None:
        return None
    if not isinstance(value, dict):
        raise Ended(LOGIC_ERROR)
    return value.get(key)


def styled_scalar(value):
    if value is None:
        return "null"
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, int) and -2**63 <= value < 2**64:
        return str(value)
    if isinstance(value, (int, float)):
        text = "%.17g" % value
        return text if "." in text or "e" in text else text + ".0"
    return styled_string(value)


def styled_string(text):
    short = {'"': '\\"', "\\": "\\\\", "\b": "\\b", "\f": "\\f", "\n": "\\n", "\r": "\\r", "\t": "\\t"}

    def escaped(character):
        code = ord(character)
        if character in short:
            return short[character]
        if 0x20 <= code < 0x80:
            return character
        units = character.encode("utf-16-be")
        return "".join(f"\\u{units[i]:02x}{units[i + 1]:02x}" for i in range(0, len(units), 2))

    # A byte that is no UTF-8 comes out as the replacement character.
    clean = "".join("\ufffd" if 0xDC80 <= ord(c) <= 0xDCFF else c for c in text)
    return '"' + "".join(map(escaped, clean)) + '"'


def styled(value, indent=""):
    """Returns the JSON library's indented form: members in byte order, and what holds members on lines of its own."""
    deeper = indent + "\t"
    if not isinstance(value, (dict, list)):
        return styled_scalar(value)
    brackets = "{}" if isinstance(value, dict) else "[]"
    if not value:
        return brackets

    def below(item):
        return ("\n" + deeper if isinstance(item, (dict, list)) and item else "") + styled(item, deeper)

    if isinstance(value, dict):
        lines = [f"{deeper}{styled_string(key)} : {below(value[key])}" for key in sorted(value, key=to_bytes)]
    else:
        lines = [deeper + styled(item, deeper) for item in value]
    return "\n".join([brackets[0], ",\n".join(lines), indent + brackets[1]])


def depth(value):
    items = value.values() if isinstance(value, dict) else value if isinstance(value, list) else None
    return 1 if items is None else 1 + max(map(depth, items), default=0)


class Entry:
    """One published item."""

    def __init__(self):
        self.offset = self.length = 0
        self.name = self.interface = self.object_path = self.path = self.location = self.type = self.content = ""
        self.is_read = self.is_write = self.is_signal = False

    def full_path(self):
        return f"{ROOT}/{self.object_path}" if self.object_path else ROOT

    def full_interface(self):
        return f"{INTERFACE}.{self.interface}"

    def access(self):
        return {(True, True): "readwrite", (False, True): "write"}.get((self.is_read, self.is_write), "read")

    def dump(self):
        return (f"name:       {self.name}\ninterface:  {self.interface}\nobjectPath: {self.object_path}\n"
                f"location:   {self.location}\noffset:     0x{self.offset:08x}\nlength:     {self.length:x}\n"
                f"type:       {self.type}\ncontent:    {self.content}\nisRead:     {self.is_read:d}\n"
                f"isWrite:    {self.is_write:d}\nisSignal:   {self.is_signal:d}\n")

    def value(self):
        """Returns the variant a Get answers with; None where it cannot be made, so that the item is left out."""
        kind = self.type[:1]
        try:
            if kind == "b":
                return GLib.Variant("b", self.content == "true")
            if kind == "d":
                return GLib.Variant("d", read_double(self.content))
            if kind == "i":
                return GLib.Variant("i", read_int32(self.content))
            if kind == "u":
                return GLib.Variant("u", read_int32(self.content) % 2**32)
        except (ValueError, OverflowError):
            raise Ended(SLOT_ERROR) from None
        text = c_string(self.content)
        return GLib.Variant("s", text) if is_utf8(text) else None


def is_utf8(text):
    try:
        text.encode("utf-8")
        return True
    except UnicodeEncodeError:
        return False


class Interface:
    """An interface as the bus library understood it, copied: what the library hands out dies with its document."""

    def __init__(self, info):
        self.name = info.name
        self.xml = interface_xml(info)
        self.properties = [(item.name, item.signature, item.flags) for item in info.properties]
        # Of properties of one name, a request is checked against the last.
        self.by_name = {name: (signature, flags) for name, signature, flags in self.properties}


class Model:
    """One run of the daemon. `files` maps paths to bytes or DIRECTORY, and changes as the daemon writes."""

    def __init__(self, document, files, name_is_taken=False):
        self.document = document
        self.files = files
        self.entries = []
        self.listing = b""
        self.journal = []
        self.signals = []
        self.interfaces = {}  # object path: interface information, once registered
        self.status = None  # while it serves
        self.complaints = False  # whether something is expected on standard error
        try:
            self._start(name_is_taken)
        except Ended as end:
            self._end(end)

    def _end(self, end):
        self.status = end.args[0]
        self.complaints = self.complaints or self.status != 0

    def _log(self, priority, file, line, function, text):
        # The journal's client library takes blanks and line feeds off the end of a message.
        text = c_string(text).rstrip(" \t\r\n")
        self.journal.append((priority, f"src/{file}.cpp", line, function, text))

    # --- start

    def _start(self, name_is_taken):
        self._parse()
        self._log(6, "korvaneinfod", 38, "main", "Initializing D-Bus Service")
        nodes = self._introspection()
        self._log(6, "dbus/DBusServices", 425, "onBusAcquired", f"Bus acquired {BUS_NAME}, registering objects")
        self._register(nodes)
        if name_is_taken:
            self._log(7, "dbus/DBusServices", 465, "onNameLost", "name lost")
            raise Ended(0)
        self._log(6, "dbus/DBusServices", 446, "onNameAcquired", f"Name acquired: {BUS_NAME}")

    def _parse(self):
        if self.document is BROKEN:
            self._log(3, "ConfigFileParser", 56, "parseData", "Error in parsing")
            self._log(3, "korvaneinfod", 34, "main", "Error in getting data from configuration file")
            raise Ended(0)
        if depth(self.document) > DEEPEST:
            raise Ended(LOGIC_ERROR)
        self.listing += b"#### Begin board information ####\n"
        if isinstance(self.document, dict) and self.document:
            raise Ended(LOGIC_ERROR)
        for element in self.document if isinstance(self.document, list) else []:
            self._parse_element(element)
        self.listing += b"#### End board information ####\n"

    def _parse_element(self, element):
        self._log(6, "ConfigFileParser", 63, "parseData", "-" * 37)
        self._log(6, "ConfigFileParser", 64, "parseData", f"Current Entry: {as_text(member(element, 'name'))}")
        self._log(7, "ConfigFileParser", 68, "parseData", "Current Entry JSON:\n" + c_string(styled(element) + "\n"))
        content = self._read_value(element)
        entry = Entry()
        entry.name = as_text(member(element, "name"))
        entry.interface = as_text(member(element, "interface"))
        entry.object_path = as_text(member(element, "objectpath"))
        entry.path = as_text(member(element, "path"))
        entry.location = as_text(member(element, "location"))
        entry.offset = self._convert(as_text(member(element, "offset")))
        entry.length = as_unsigned(member(element, "length"))
        entry.type = as_text(member(element, "type"))
        entry.content = content
        entry.is_read = as_flag(member(element, "read"))
        entry.is_write = as_flag(member(element, "write"))
        entry.is_signal = as_flag(member(element, "signal"))
        self._log(7, "ConfigFileParser", 87, "parseData", "Config Entry:\n" + c_string(entry.dump()))
        self.entries.append(entry)
        self.listing += to_bytes(entry.name).ljust(24) + b": " + to_bytes(entry.content) + b"\n"

    def _convert(self, text):
        if not text:
            return 0
        try:
            return read_integer(text, 0) % 2**32
        except ValueError:
            self._log(3, "ConfigFileParser", 210, "convert", "Invalid-Argument: could not convert value: " + text)
        except OverflowError:
            self._log(3, "ConfigFileParser", 214, "convert", "Out-Of-Range: could not convert value: " + text)
        return 0

    def _read_value(self, element):
        path = as_text(member(element, "path"))
        location = as_text(member(element, "location"))
        data = self._content_of(path)
        if location == "par":
            return to_text(data.split(b"\n", 1)[0])
        if location != "fuses":
            return ""
        offset = self._convert(as_text(member(element, "offset")))
        length = as_unsigned(member(element, "length"))
        data = data[offset:]
        # Bytes that are not there count as zeros; in the long form the last byte that was there is repeated.
        if length <= 4:
            raw = str(int.from_bytes(data[:4][:length], "little"))
        else:
            kept = bytes(byte for byte in data if byte not in SKIPPED)[:length]
            raw = (kept + (kept[-1:] or b"\0") * (length - len(kept))).hex()
        return translate(member(element, "translate"), raw)

    def _content_of(self, path):
        data = self.files.get(normal(path), b"") if c_string(path) else b""
        return b"" if data is DIRECTORY else data

    # --- D-Bus

    def xml(self):
        fragments = {}
        for entry in self.entries:
            path = entry.full_path()
            item = f"<property name='{entry.name}' type='{entry.type}' access='{entry.access()}'/>"
            if path in fragments:
                fragments[path] += f" {item}"
                continue
            opening = f"<node name='{path}'>" if entry.object_path else ""
            fragments[path] = f"{opening} <interface name='{entry.full_interface()}'>  {item}"
        inside = "".join(fragments[path] + " </interface>" + ("" if path == ROOT else "</node>")
                         for path in sorted(fragments, key=to_bytes))
        return f"<node name='{ROOT}'>{inside}</node>"

    def _introspection(self):
        xml = self.xml()
        self._log(7, "dbus/DBusServices", 229, "generateXMLFile", "XML file: " + xml)
        self._log(7, "dbus/DBusServices", 52, "DBusServices", "Introspection Data:\n" + xml)
        if not is_utf8(xml):
            raise Ended(LOGIC_ERROR)
        try:
            root = Gio.DBusNodeInfo.new_for_xml(c_string(xml))
        except GLib.Error:
            raise Ended(LOGIC_ERROR) from None
        return [(node.path, [Interface(info) for info in node.interfaces]) for node in [root, *root.nodes]]

    def _register(self, nodes):
        for path, interfaces in nodes:
            self._log(7, "dbus/DBusServices", 494, "registerObjects", "Registering interfaces")
            for interface in interfaces:
                self._register_interface(path, interface)

    def _register_interface(self, path, interface):
        taken = path in self.interfaces
        if taken or not GLib.Variant.is_object_path(path) or not Gio.dbus_is_interface_name(interface.name):
            if not taken:
                self._log(7, "dbus/DBusServices", 525, "registerInterfaces", "failed registering interfaces")
                self.complaints = True
            self._log(7, "dbus/DBusServices", 431, "onBusAcquired", "Registration failed")
            raise Ended(0)
        self.interfaces[path] = interface
        self._log(7, "dbus/DBusServices", 519, "registerInterfaces", "Registering interfaces")

    # --- requests

    def request(self, kind, *arguments):
        """Returns the reply as ("reply", ...), ("error", name, text of the daemon's own or None)."""
        try:
            return ("reply", getattr(self, "_" + kind)(*arguments))
        except Refused as refusal:
            return ("error", *refusal.args)
        except Ended as end:
            self._end(end)
            return ("error", NO_REPLY, None)

    def _declared(self, path, interface):
        if path not in self.interfaces:
            raise Refused(UNKNOWN_METHOD, None)
        if self.interfaces[path].name != interface:
            raise Refused(INVALID_ARGS, None)
        return self.interfaces[path]

    def _declared_property(self, path, interface, name, access):
        signature, flags = self._declared(path, interface).by_name.get(name, (None, 0))
        if not flags & access:
            raise Refused(INVALID_ARGS, None)
        return signature

    def _find(self, path, interface, name, lines, function):
        candidates = [entry for entry in self.entries if entry.full_path() == path]
        if not candidates:
            raise self._not_found("Object path", path, "Object", lines[0], function)
        candidates = [entry for entry in candidates if entry.full_interface() == interface]
        if not candidates:
            raise self._not_found("Interface", interface, "Interface", lines[1], function)
        candidates = [entry for entry in candidates if entry.name == name]
        if not candidates:
            raise self._not_found("Property", name, "Property", lines[2], function)
        return candidates[0]

    def _not_found(self, what, name, error, line, function):
        self._log(5, "dbus/DBusServices", line, function, f"{what} {name} not found")
        return Refused(f"org.freedesktop.DBus.Error.Unknown{error}", f"{error.lower()} {name} unknown")

    def _get(self, path, interface, name):
        self._declared_property(path, interface, name, Gio.DBusPropertyInfoFlags.READABLE)
        value = self._find(path, interface, name, (323, 329, 333), "onGetProperty").value()
        if value is None:
            raise Ended(-signal.SIGABRT)
        return GLib.Variant("(v)", (value,)).print_(True)

    def _get_all(self, path, interface):
        values = []
        for name, _, flags in self._declared(path, interface).properties:
            if not flags & Gio.DBusPropertyInfoFlags.READABLE:
                continue
            try:
                value = self._find(path, interface, name, (323, 329, 333), "onGetProperty").value()
            except Refused:
                continue
            if value is None:
                self.complaints = True
                continue
            values.append((name, value.print_(True)))
        return values

    def _set(self, path, interface, name, value):
        signature = self._declared_property(path, interface, name, Gio.DBusPropertyInfoFlags.WRITABLE)
        if signature != value.get_type_string():
            raise Refused(INVALID_ARGS, None)
        entry = self._find(path, interface, name, (400, 406, 410), "setProperty")
        self._write(entry, value.print_(False).strip("'"))
        self.signals.append((path, "org.freedesktop.DBus.Properties", "PropertiesChanged", "()"))
        return "()"

    def _write(self, entry, text):
        path = normal(entry.path)
        folder = os.path.dirname(path)
        if not c_string(entry.path) or self.files.get(path) is DIRECTORY or (
                folder and self.files.get(folder) is not DIRECTORY):
            self._log(3, "ConfigFileParser", 191, "updateValueInPathFile", "setProperty: Unable to access file")
            return
        self.files[path] = to_bytes(text) + b"\n"
        entry.content = text

    def _introspect(self, path):
        """Returns the object's interface, as the bus library writes it, and the names of the nodes below it."""
        interface = self.interfaces.get(path)
        below_path = path.rstrip("/") + "/"
        below = {other[len(below_path):].split("/")[0] for other in self.interfaces if other.startswith(below_path)}
        return (None if interface is None else interface.xml), sorted(below)

    def _call(self, _path, _interface, _method):
        raise Refused(UNKNOWN_METHOD, None)

    def lose_bus(self):
        """The bus goes away: the daemon's end, if it has not ended before."""
        if self.status is None:
            self._log(7, "dbus/DBusServices", 460, "onNameLost", "connection lost")
            self.status = 0


def interface_xml(interface):
    text = GLib.String.new("")
    interface.generate_xml(2, text)
    return text.str


def normal(path):
    return os.path.normpath(c_string(path))


def translate(table, raw):
    if table is None:
        return raw
    for key in (raw, "*"):
        if isinstance(member(table, key), str):
            return table[key]
    return raw
