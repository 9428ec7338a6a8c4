"""The journal of the daemon, as tuples (priority, file, line, function, text) like those of Daemon.journal()."""

import json

from testbed import BUS_NAME, INTERFACE, ROOT, full_path

MAIN = "src/korvaneinfod.cpp"
PARSER = "src/ConfigFileParser.cpp"
SERVICE = "src/dbus/DBusServices.cpp"

OPTION_MISSING = (3, MAIN, 57, "main", "Mandatory argument -c 'config file name' missing")
FILE_NAME_MISSING = (3, MAIN, 52, "main", "Argument value is empty")
NO_CONFIGURATION = (3, MAIN, 34, "main", "Error in getting data from configuration file")
INITIALIZING = (6, MAIN, 38, "main", "Initializing D-Bus Service")

NOT_PARSED = (3, PARSER, 56, "parseData", "Error in parsing")
SEPARATOR = (6, PARSER, 63, "parseData", "-" * 37)

NOT_ACCESSIBLE = (3, PARSER, 191, "updateValueInPathFile", "setProperty: Unable to access file")
NOT_OPENED = (3, PARSER, 186, "updateValueInPathFile", "setProperty: Unable to open file")

BUS_ACQUIRED = (6, SERVICE, 425, "onBusAcquired", f"Bus acquired {BUS_NAME}, registering objects")
NAME_ACQUIRED = (6, SERVICE, 446, "onNameAcquired", f"Name acquired: {BUS_NAME}")
NAME_LOST = (7, SERVICE, 465, "onNameLost", "name lost")
CONNECTION_LOST = (7, SERVICE, 460, "onNameLost", "connection lost")
OBJECT = (7, SERVICE, 494, "registerObjects", "Registering interfaces")
REGISTERED = (7, SERVICE, 519, "registerInterfaces", "Registering interfaces")
NOT_REGISTERED = (7, SERVICE, 525, "registerInterfaces", "failed registering interfaces")
REGISTRATION_FAILED = (7, SERVICE, 431, "onBusAcquired", "Registration failed")


def as_stored(priority, file, line, function, text):
    """Returns the message as the journal has it: libsystemd drops white space at the end of a text."""
    return (priority, file, line, function, text.rstrip())


def not_a_number(text):
    return as_stored(3, PARSER, 210, "convert", f"Invalid-Argument: could not convert value: {text}")


def out_of_range(text):
    return (3, PARSER, 214, "convert", f"Out-Of-Range: could not convert value: {text}")


def current_entry(name):
    return as_stored(6, PARSER, 64, "parseData", f"Current Entry: {name}")


def current_json(text):
    return (7, PARSER, 68, "parseData", f"Current Entry JSON:\n{text}")


def styled(element):
    """Returns an element without nested values in the styled form of the JSON library."""
    return json.dumps(element, indent="\t", sort_keys=True, separators=(",", " : "))


def beginning(element):
    """Returns what is logged of an element before its value is read."""
    return [SEPARATOR, current_entry(element["name"]), current_json(styled(element))]


def dump(name="", interface="", object_path="", location="", offset="00000000", length="0", value_type="", content="",
         flags="000"):
    """Returns the dump of an entry; numbers as hexadecimal text, flags as three digits: read, write, signal."""
    return (7, PARSER, 87, "parseData", "Config Entry:\n"
            f"name:       {name}\n"
            f"interface:  {interface}\n"
            f"objectPath: {object_path}\n"
            f"location:   {location}\n"
            f"offset:     0x{offset}\n"
            f"length:     {length}\n"
            f"type:       {value_type}\n"
            f"content:    {content}\n"
            f"isRead:     {flags[0]}\n"
            f"isWrite:    {flags[1]}\n"
            f"isSignal:   {flags[2]}")


def par_entry(element, content):
    """Returns all that is logged of an element as TestBed.par() makes them."""
    flags = "".join(str(int(element[key])) for key in ("read", "write", "signal"))
    return [*beginning(element), dump(element["name"], element["interface"], element["objectpath"], "par",
                                      value_type=element["type"], content=content, flags=flags)]


def document(*objects):
    """Returns the introspection document of objects (object path below the root, interface, properties), the
    properties as (name, type, access); everything in the order in which it is to stand there."""
    xml = f"<node name='{ROOT}'>"
    for object_path, interface, properties in objects:
        if object_path:
            xml += f"<node name='{full_path(object_path)}'>"
        xml += f" <interface name='{INTERFACE}.{interface}'> "
        for name, value_type, access in properties:
            xml += f" <property name='{name}' type='{value_type}' access='{access}'/>"
        xml += " </interface>"
        if object_path:
            xml += "</node>"
    return xml + "</node>"


def initialized(xml):
    """Returns what is logged between the last entry and the first word from the bus."""
    return [INITIALIZING,
            (7, SERVICE, 229, "generateXMLFile", f"XML file: {xml}"),
            (7, SERVICE, 52, "DBusServices", f"Introspection Data:\n{xml}")]


def registered(*objects):
    """Returns what is logged of the registration of these objects (see document()), the root always among them."""
    root = [] if objects and objects[0][0] == "" else [OBJECT]
    return [BUS_ACQUIRED, *root, *[OBJECT, REGISTERED] * len(objects)]


def serving(*objects):
    """Returns what is logged from the last entry until the name is owned."""
    return [*initialized(document(*objects)), *registered(*objects), NAME_ACQUIRED]


def lookup_failed(function, what, name):
    """Returns the message of a property request that the handler refuses."""
    line = {"onGetProperty": {"Object path": 323, "Interface": 329, "Property": 333},
            "setProperty": {"Object path": 400, "Interface": 406, "Property": 410}}[function][what]
    return (5, SERVICE, line, function, f"{what} {name} not found")
